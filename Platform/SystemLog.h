#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/LogSink.h"

namespace platform {

// A client of the system log: who logs, and for which part of the product.
struct AslClient {
  std::string ident;
  std::string facility;
};

// The system log facility, with the names that the platform gives it. Any thread may use it; a call
// never blocks beyond the sink's write and never fails to its caller.
//
// What a sink refuses is counted, and the count is written as a message of this layer as soon as
// the sink takes messages again.
class SystemLog {
 public:
  // Messages with a level above `maximumLevel` (less grave) are not written. `sink` outlives this.
  explicit SystemLog(LogSink& sink, int maximumLevel = ASL_LEVEL_DEBUG);

  // Opens a client. No option is defined here (the system passes 0 everywhere).
  std::unique_ptr<AslClient> asl_open(std::string_view ident, std::string_view facility,
                                      std::uint32_t options);

  // Writes the finished text `message` as it stands; a null client is the default client, whose
  // ident is the program's name. Levels outside 0 to 7 count as the nearest of them.
  void asl_log(const AslClient* client, int level, std::string_view message);

  // Ends the client; null does nothing.
  void asl_close(std::unique_ptr<AslClient> client);

  // Messages lost so far and not yet reported.
  std::uint64_t dropped() const { return dropped_.load(std::memory_order_relaxed); }

 private:
  bool writeCounting(const LogRecord& record);

  LogSink& sink_;
  const int maximumLevel_;
  std::atomic<std::uint64_t> dropped_ = 0;
};

}  // namespace platform
