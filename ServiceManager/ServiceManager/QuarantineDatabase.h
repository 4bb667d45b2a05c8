#pragma once

#include <functional>
#include <optional>
#include <string>

// Where the file of a quarantine event came from, as the database of the user with that home folder
// says; nothing where it does not. That file is the user's, who may have put anything there: it is
// opened with that user's rights, or not at all where they can't be had, and it is not read where
// it is larger than openWithoutWaiting() allows. Opening it is bounded by that size alone. What it
// makes of a query is bounded in memory, and ends soon after `isOver` has said so, which is asked
// after every few instructions, on the calling thread; the schema's views, virtual tables and
// functions, which could go on for ever between two of them, are not computed.
// Blocks on the disk; any thread.
std::optional<std::string> originOfQuarantineEvent(const std::string& home,
                                                   const std::string& identifier,
                                                   const std::function<bool()>& isOver);
