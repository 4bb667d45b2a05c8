#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

// What a log file needs to be known of. Times are left out on purpose: once somebody has asked for
// them the system keeps them finer, and the next write to the file costs half as much again.
struct LogFileStatus {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  bool isRegular = false;

  bool isSameFileAs(const LogFileStatus& other) const {
    return device == other.device && inode == other.inode;
  }

  // Nothing, and errno says why, when it can't be had. A symbolic link is not followed.
  static std::optional<LogFileStatus> ofName(const std::string& path);
  static std::optional<LogFileStatus> ofDescriptor(int descriptor);
};

// Renames the log file at `path` to PATH.1 and what is in its way to the next number, up to `kept`;
// what has that number goes. Does nothing when the file there is not `expected` any more or another
// process is at it: so a file is rotated once however many processes find it full. Neither waits
// nor reports: who calls looks at `path` again.
void rotateLogFile(const std::string& path, const LogFileStatus& expected, unsigned kept);

}  // namespace platform
