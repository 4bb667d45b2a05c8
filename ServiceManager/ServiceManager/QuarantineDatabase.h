#pragma once

#include <functional>
#include <optional>
#include <string>

// The URL that the file of a quarantine event came from, according to the database of the user with
// that home folder; nothing if the database has none. The user owns the database and may put
// anything there. It is opened with that user's permissions, or not at all if that fails, and it is
// not read if it is larger than openWithoutWaiting() allows. Opening it is bounded by that size
// alone. A query is bounded in memory, and ends soon after `isOver` has returned true. The calling
// thread calls that after every few instructions. The schema's views, virtual tables and functions
// are not computed, since they could run for ever between two such calls. Blocks on the disk; any
// thread.
std::optional<std::string> originOfQuarantineEvent(const std::string& home,
                                                   const std::string& identifier,
                                                   const std::function<bool()>& isOver);
