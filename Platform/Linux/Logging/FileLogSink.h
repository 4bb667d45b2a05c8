#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/Linux/Logging/FileLogSinkRotation.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Logging/LogSink.h"

namespace platform {

// Messages as lines of a file:
//
//   2026-01-02T03:04:05.678901Z HOST IDENT[PID] (FACILITY) <LEVEL> MESSAGE
//
// The time is UTC; the texts are escaped as in LogSinkText.h, with the host's blanks, the ident's
// "[" and the facility's ")" escaped too, so that a line can be taken apart again. Each line is one
// write. A line of which the system took a part only (a full disk) counts as refused; the part
// stays, on a line of its own.
//
// Any number of processes may write to the same file, and anybody may rename or remove it: the next
// line goes to a new one. When it is full it becomes FILE.1, FILE.1 becomes FILE.2 and so on; the
// oldest goes. While that fails the file grows beyond its size.
//
// The file must be a regular one, not a symbolic link. Missing, it is made with mode 0640, and its
// folder with 0755. The writes of one process wait for each other and for the disk, for nothing
// else.
class FileLogSink final : public LogSink {
 public:
  struct Limits {
    std::uint64_t bytes = std::uint64_t{10} << 20;  // a line beyond it begins the next file
    unsigned kept = 5;                              // older files beside the current, at least 1
  };

  explicit FileLogSink(std::string path) : FileLogSink(std::move(path), Limits{}) {}
  FileLogSink(std::string path, Limits limits);

  Result<void> write(const LogRecord& record) override;

 private:
  Result<void> openCurrent();
  Result<void> open();
  Result<void> rotateIfFull(std::size_t added);
  void composeLine(const LogRecord& record);
  void appendTime();
  Result<void> writeLine();
  bool endsInTornLine() const;

  const std::string path_;
  const Limits limits_;

  std::mutex mutex_;
  UniqueFd file_;
  LogFileStatus current_;           // of `file_`, as of the last look
  std::uint64_t expectedSize_ = 0;  // when nobody else has written since our last whole line
  std::uint64_t rotateAbove_ = 0;
  std::string host_;
  std::string line_;
  std::int64_t second_ = -1;  // the one that `secondText_` shows
  std::string secondText_;
};

}  // namespace platform
