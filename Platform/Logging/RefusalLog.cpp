#include "Platform/Logging/RefusalLog.h"

#include <utility>

#include "Platform/Texts/StringFormat.h"

namespace platform {

RefusalLog::RefusalLog(RunLoop& loop, SystemLog& log, std::string ident)
    : loop_(loop), log_(log), client_{std::move(ident), "com.vantor.platform"} {}

void RefusalLog::write(std::string_view line) {
  const Instant now = loop_.now();
  if (!periodStart_ || now - *periodStart_ >= kPeriod) {
    periodStart_ = now;
    linesInPeriod_ = 0;
  }
  if (linesInPeriod_ == kLinesPerPeriod) {
    ++missing_;
    return;
  }
  ++linesInPeriod_;
  std::string text(line);
  if (const auto missing = static_cast<unsigned long>(std::exchange(missing_, 0)); missing > 0)
    text += stringWithFormat(" (%lu lines like this one were left out before it)", missing);
  log_.asl_log(&client_, ASL_LEVEL_WARNING, text);
}

}  // namespace platform
