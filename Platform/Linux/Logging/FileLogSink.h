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
// The time is UTC. Texts are escaped as in LogSinkText.h; blanks in the host, "[" in the ident and
// ")" in the facility are escaped, too, so that a line can be parsed. Each line is one write. If
// the system writes only a part of a line (a full disk), the line counts as refused, and the part
// stays on a line of its own.
//
// Any number of processes may write to the same file, and anybody may rename or remove it: the next
// line goes to a new file. A full file becomes FILE.1, FILE.1 becomes FILE.2 and so on; the oldest
// is removed. If that fails, the file grows beyond its limit.
//
// The file must be a regular one, not a symbolic link. A missing file is made with mode 0640, and
// its folder with 0755. The writes of one process wait for each other and for the disk, and for
// nothing else.
class FileLogSink final : public LogSink {
 public:
  struct Limits {
    std::uint64_t bytes = std::uint64_t{10} << 20;  // a line beyond this begins the next file
    // Older files beside the current one, at least 1.
    unsigned kept = 5;
  };

  enum class Line {
    kWhole,
    kTimeAndText,  // "TIME MESSAGE"
  };

  explicit FileLogSink(std::string path) : FileLogSink(std::move(path), Limits{}) {}
  FileLogSink(std::string path, Limits limits, Line kind = Line::kWhole);

  Result<void> write(const LogRecord& record) override;

 private:
  Result<void> openCurrent();
  Result<void> open();
  Result<void> rotateIfFull(std::size_t added);
  void composeLine(const LogRecord& record);
  void appendTime(const LogRecord& record);
  Result<void> writeLine();
  bool endsInTornLine() const;

  const std::string path_;
  const Limits limits_;
  const Line kind_;

  std::mutex mutex_;
  UniqueFd file_;
  LogFileStatus current_;           // of `file_` at the last check
  std::uint64_t expectedSize_ = 0;  // if nobody else has written since our last complete line
  std::uint64_t rotateAbove_ = 0;
  std::string host_;
  std::string line_;
  std::int64_t second_ = -1;  // the second that `secondText_` shows
  std::string secondText_;
};

}  // namespace platform
