#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

// The identity and size of a log file. Times are left out on purpose: once a process has asked for
// them, the system records them more finely, and the next write costs half as much again.
struct LogFileStatus {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  bool isRegular = false;

  bool isSameFileAs(const LogFileStatus& other) const {
    return device == other.device && inode == other.inode;
  }

  // std::nullopt, with errno set, if the status can't be read. A symbolic link is not followed.
  static std::optional<LogFileStatus> ofName(const std::string& path);
  static std::optional<LogFileStatus> ofDescriptor(int descriptor);
};

// Renames the log file at `path` to PATH.1, and older files to the next number, up to `kept`; the
// file with that number is removed. Does nothing if the file at `path` is not `expected` any more
// or another process is rotating it, so a file is rotated once even if many processes find it full.
// Neither blocks nor reports failures: the caller checks `path` again.
void rotateLogFile(const std::string& path, const LogFileStatus& expected, unsigned kept);

}  // namespace platform
