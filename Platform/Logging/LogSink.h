#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Platform/Logging/LogFields.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// The standard levels of the system log; lower is more severe.
enum AslLevel : int {
  ASL_LEVEL_EMERG = 0,
  ASL_LEVEL_ALERT = 1,
  ASL_LEVEL_CRIT = 2,
  ASL_LEVEL_ERR = 3,
  ASL_LEVEL_WARNING = 4,
  ASL_LEVEL_NOTICE = 5,
  ASL_LEVEL_INFO = 6,
  ASL_LEVEL_DEBUG = 7,
};

// One message for a sink. The views are valid during the call.
struct LogRecord {
  std::string_view ident;     // the speaker, for instance a class name
  std::string_view facility;  // reverse-DNS name of the part of the product
  AslLevel level = ASL_LEVEL_DEBUG;
  std::string_view message;  // may contain line breaks and any bytes; the sink escapes them
  bool isUrgent = false;     // a sink whose room is limited keeps a part of it for these
  // When and by which thread it was logged: now and by the calling thread, if absent.
  std::optional<WallTime> time = std::nullopt;
  std::optional<std::uint32_t> thread = std::nullopt;
  LogFields fields = {};
};

// The destination of messages. Any thread may call it; calls never block on another process.
class LogSink {
 public:
  virtual ~LogSink() = default;

  // Writes the whole record or nothing. Fails if the sink is gone, full or busy. The caller counts
  // the lost messages and reports them when a later write succeeds.
  virtual Result<void> write(const LogRecord& record) = 0;
};

}  // namespace platform
