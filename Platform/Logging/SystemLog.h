#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Logging/LogFields.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Logging/LostMessages.h"

namespace platform {

// A client of the system log: the speaker, and its part of the product.
struct AslClient {
  std::string ident;
  std::string facility;
};

// The system log facility, with the platform's names. Any thread may use it. A call blocks only on
// the sink's write and never fails.
//
// Messages that a sink refuses are counted. As soon as it accepts messages again, the count is
// written once, as a message of this layer before the first message after the gap. Errors and worse
// are urgent, and so is a count that stands before one of them.
class SystemLog {
 public:
  // The longest ident or facility, in bytes.
  static constexpr std::size_t kMaximumNameSize = 255;
  // The longest message, in bytes; a longer one is cut and marked as cut.
  static constexpr std::size_t kMaximumMessageSize = std::size_t{1} << 20;

  // `programName` is the ident of the default client. Messages with a level above `maximumLevel`
  // (less severe) are not written. `sink` outlives this.
  SystemLog(LogSink& sink, std::string programName, int maximumLevel = ASL_LEVEL_DEBUG);
  SystemLog(const SystemLog&) = delete;
  SystemLog& operator=(const SystemLog&) = delete;
  // Tries a last time to report lost messages.
  ~SystemLog();

  // Opens a client. No options are defined here (the system passes 0 everywhere). Null if a name is
  // too long.
  std::unique_ptr<AslClient> asl_open(std::string_view ident, std::string_view facility,
                                      std::uint32_t options);

  // Writes the finished text `message` unchanged. A null client is the default client, whose ident
  // is the program's name. Levels outside 0 to 7 count as the nearest of them.
  void asl_log(const AslClient* client, int level, std::string_view message,
               const LogFields& fields = {});

  // Closes the client; null does nothing. Static, because a queue's finaliser has only the client.
  static void asl_close(std::unique_ptr<AslClient> client);

  const std::string& programName() const { return defaultClient_.ident; }

  // The number of messages that wait in front of this for another thread, which will log them.
  // Their keeper counts them; a program that ends waits for them. Shared with that.
  using Announced = std::atomic<std::uint64_t>;
  const std::shared_ptr<Announced>& announced() const { return announced_; }

  // Counts a message that was dropped before it came here, to report it with the others.
  void countLost() { lost_.count(); }

  // Messages lost so far and not yet reported.
  std::uint64_t dropped() const { return lost_.number(); }

 private:
  LogSink& sink_;
  const AslClient defaultClient_;
  const int maximumLevel_;
  LostMessages lost_;
  const std::shared_ptr<Announced> announced_ = std::make_shared<Announced>(0);
};

}  // namespace platform
