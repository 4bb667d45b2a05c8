#pragma once

#include <cstddef>
#include <cstdint>
#include <source_location>
#include <string>
#include <vector>

#include "Platform/Logging/LogSink.h"

namespace platform {

// Copies of messages that wait for a sink, bounded in bytes. It is not safe for threads.
class LogBuffer {
 public:
  struct Limits {
    std::size_t bytes = std::size_t{4} << 20;  // of all messages that occupy it
    std::size_t reserve = std::size_t{1}
                          << 20;  // of these bytes, the room for urgent messages alone
  };
  // The cost of a message beside its texts.
  static constexpr std::size_t kOverhead = 64;

  static std::size_t costOf(const LogRecord& record) {
    return record.ident.size() + record.facility.size() + record.message.size() +
           record.fields.label.size() + kOverhead;
  }

  // Messages that were taken out. They occupy the buffer until each is released.
  class Batch {
   public:
    std::size_t size() const { return lines_.size(); }
    // Valid until the next call of a function that is not const.
    LogRecord operator[](std::size_t index) const;
    // Keeps a little of its memory for the next messages.
    void clear();

   private:
    friend class LogBuffer;

    struct Line {
      std::size_t begin;
      std::uint32_t ident;
      std::uint32_t facility;
      std::uint32_t label;
      std::size_t message;
      WallTime time;
      std::uint32_t thread;
      AslLevel level;
      const char* messageId;
      ProcessId process;
      std::source_location where;
    };

    std::string texts_;  // one after the other
    std::vector<Line> lines_;
  };

  explicit LogBuffer(Limits limits) : limits_(limits) {}

  // Copies the message, with the present time and thread unless it has others. False if there is no
  // room for it.
  [[nodiscard]] bool add(const LogRecord& record);

  bool empty() const { return waiting_.lines_.empty(); }

  // Exchanges the messages that wait with the empty `batch`.
  void take(Batch& batch);

  // Gives the room of a message back.
  void release(std::size_t cost) { occupied_ -= cost; }

 private:
  const Limits limits_;
  Batch waiting_;
  std::size_t occupied_ = 0;
};

}  // namespace platform
