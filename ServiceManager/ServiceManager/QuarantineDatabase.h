#pragma once

#include <optional>
#include <string>

// Where the file of a quarantine event came from, as the database of the user with that home folder
// says; nothing where it does not. That file is the user's, who may have put anything there: it is
// opened with that user's rights, its content is bounded in time and size. Blocks on the disk; any
// thread.
std::optional<std::string> originOfQuarantineEvent(const std::string& home,
                                                   const std::string& identifier);
