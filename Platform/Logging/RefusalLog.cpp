#include "Platform/Logging/RefusalLog.h"

#include <utility>

namespace platform {

namespace {

constexpr char kFacility[] = "com.vantor.platform";
constexpr std::uint32_t kRoot = 0;

}  // namespace

RefusalLog::RefusalLog(RunLoop& loop, SystemLog& log, std::string ident)
    : RefusalLog(log, ident, std::make_shared<UserLines>(kRoot, loop, log, ident)) {}

RefusalLog::RefusalLog(SystemLog& log, std::string ident, std::shared_ptr<UserLines> lines)
    : log_(log), client_{std::move(ident), kFacility}, lines_(std::move(lines)) {}

void RefusalLog::write(std::string_view line, std::optional<std::uint32_t> user) {
  if (lines_->mayWriteFailure(user)) log_.asl_log(&client_, ASL_LEVEL_WARNING, line);
}

}  // namespace platform
