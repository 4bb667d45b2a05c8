#include "Platform/Logging/LostMessages.h"

#include <string>

#include "Platform/Texts/StringFormat.h"

namespace platform {

// The thread that takes the number reports it or restores it, so that only one thread reports it.
Result<void> LostMessages::report(LogSink& sink, bool isUrgent) {
  if (number() == 0) return {};
  const std::uint64_t count = number_.exchange(0, std::memory_order_relaxed);
  if (count == 0) return {};
  const std::string text = count == 1 ? std::string("1 message was lost here.")
                                      : stringWithFormat("%llu messages were lost here.", count);
  const LogRecord record{.ident = "SystemLog",
                         .facility = "com.vantor.platform",
                         .level = ASL_LEVEL_WARNING,
                         .message = text,
                         .isUrgent = isUrgent};
  auto written = sink.write(record);
  if (!written) number_.fetch_add(count, std::memory_order_relaxed);
  return written;
}

}  // namespace platform
