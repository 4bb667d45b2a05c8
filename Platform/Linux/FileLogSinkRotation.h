#pragma once

#include <string>

#include <sys/stat.h>

namespace platform {

bool isSameFile(const struct stat& one, const struct stat& other);

// Renames the log file at `path` to PATH.1 and what is in its way to the next number, up to `kept`;
// what has that number goes. Does nothing when the file there is not `expected` any more or another
// process is at it: so a file is rotated once however many processes find it full. Neither waits
// nor reports: who calls looks at `path` again.
void rotateLogFile(const std::string& path, const struct stat& expected, unsigned kept);

}  // namespace platform
