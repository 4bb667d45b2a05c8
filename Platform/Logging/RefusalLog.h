#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Logging/UserLines.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Logs the reasons why peers were refused or posts were lost, within the limits of UserLines.h: a
// flood of peers must not cause a flood of lines. Any thread may use it.
class RefusalLog {
 public:
  // With limits of its own. Both outlive this.
  RefusalLog(RunLoop& loop, SystemLog& log, std::string ident);
  // Within these limits, which are shared with other logs. The log outlives this.
  RefusalLog(SystemLog& log, std::string ident, std::shared_ptr<UserLines> lines);

  // Writes a warning about what this user has caused, or this program itself, or counts it.
  void write(std::string_view line, std::optional<std::uint32_t> user = std::nullopt);
  // Counts further lines that its caller has left out.
  void leaveOut(std::size_t lines) { lines_->leaveOut(lines); }

 private:
  SystemLog& log_;
  const AslClient client_;
  const std::shared_ptr<UserLines> lines_;
};

}  // namespace platform
