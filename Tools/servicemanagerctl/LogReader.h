#pragma once

#include <cstddef>
#include <string>

#include <sys/stat.h>
#include <sys/types.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

// Reads a log file from its beginning and as it grows, also across a rotation, when a full file is
// renamed and a new one takes its name. Blocks only for the disk.
class LogReader {
 public:
  explicit LogReader(std::string path) : path_(std::move(path)) {}

  // Skips to the last `lines` lines, within the last 64 KiB. Call this first.
  platform::Result<void> skipToLast(std::size_t lines);

  // Skips to the last bytes, which may begin within a line. Call this first.
  platform::Result<void> skipToLastBytes(off_t bytes);

  // The next part; empty if all has been read for now, or if there is no file yet.
  platform::Result<std::string> next();

  // Whether it reads from that file at the moment.
  bool isReading(const struct stat& file) const;

 private:
  platform::Result<void> open();
  // Whether another file has taken the name.
  bool isReplaced() const;

  const std::string path_;
  platform::UniqueFd file_;
};
