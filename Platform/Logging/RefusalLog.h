#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// Logs the reasons why peers were refused or posts were lost, with a limit of lines in each minute
// that starts with a line: a flood of peers must not cause a flood of lines. The first line after a
// gap tells how many are missing. Belongs to the loop's thread.
class RefusalLog {
 public:
  static constexpr std::size_t kLinesPerPeriod = 10;
  static constexpr Duration kPeriod = std::chrono::minutes(1);

  // Both outlive this.
  RefusalLog(RunLoop& loop, SystemLog& log, std::string ident);

  // Writes a warning, or counts it.
  void write(std::string_view line);
  // Counts further lines that its caller has left out.
  void leaveOut(std::size_t lines) { missing_ += lines; }

 private:
  RunLoop& loop_;
  SystemLog& log_;
  const AslClient client_;
  std::optional<Instant> periodStart_;
  std::size_t linesInPeriod_ = 0;
  std::size_t missing_ = 0;
};

}  // namespace platform
