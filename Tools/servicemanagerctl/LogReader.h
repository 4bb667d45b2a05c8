#pragma once

#include <cstddef>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

// Reads a log file from its beginning and as it grows, also when a full one is put aside and a new
// one begins under its name. Never blocks but for the disk.
class LogReader {
 public:
  explicit LogReader(std::string path) : path_(std::move(path)) {}

  // Goes to where the last `lines` lines begin, of the last 64 KiB at most. To be called first.
  platform::Result<void> skipToLast(std::size_t lines);

  // The next part, empty when all has been read for now, also where there is no file yet.
  platform::Result<std::string> next();

 private:
  platform::Result<void> open();
  // Whether another file has taken the name.
  bool isReplaced() const;

  const std::string path_;
  platform::UniqueFd file_;
};
