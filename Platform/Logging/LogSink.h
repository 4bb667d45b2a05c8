#pragma once

#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// The standard levels of the system log; lower is graver.
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

// One message on its way to a sink. The views live as long as the call.
struct LogRecord {
  std::string_view ident;     // who speaks, e.g. a class name
  std::string_view facility;  // reverse-DNS name of the part of the product
  AslLevel level = ASL_LEVEL_DEBUG;
  std::string_view message;  // may hold line breaks and any bytes; the sink makes them harmless
};

// Where messages end. Any thread may call it; calls never wait for another process.
class LogSink {
 public:
  virtual ~LogSink() = default;

  // Hands the whole record over, or nothing of it. Fails when the sink is gone, full or busy; the
  // caller counts what is lost and says so when a later write succeeds.
  virtual Result<void> write(const LogRecord& record) = 0;
};

}  // namespace platform
