#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Logging/LogSink.h"
#include "Platform/Values/KernelIds.h"

namespace platform {

// Records messages, and can be made to refuse them. Any thread may use it.
class FakeLogSink final : public LogSink {
 public:
  struct Message {
    std::string ident;
    std::string facility;
    AslLevel level = ASL_LEVEL_DEBUG;
    std::string text;

    bool operator==(const Message&) const = default;
  };

  // The fields of a message that has a message id.
  struct Event {
    std::string_view messageId;
    std::string label;
    ProcessId process = 0;

    bool operator==(const Event&) const = default;
  };

  Result<void> write(const LogRecord& record) override;

  // Refuses everything until recover().
  void fail();
  void recover();

  // The number of refused writes.
  std::size_t refused() const;

  std::vector<Message> messages() const;
  // Only the texts, in order.
  std::vector<std::string> texts() const;
  std::vector<Message> messagesAtLevel(AslLevel level) const;
  std::vector<Message> messagesOf(std::string_view ident) const;
  // The number of messages whose text contains `part`.
  std::size_t count(std::string_view part) const;
  // The messages with a message id.
  std::vector<Event> events() const;
  void clear();
  // Returns the messages and removes them.
  std::vector<Message> take();

 private:
  template <typename Predicate>
  std::vector<Message> select(Predicate predicate) const;

  mutable std::mutex mutex_;
  std::vector<Message> messages_;
  std::vector<Event> events_;
  std::size_t refused_ = 0;
  bool failing_ = false;
};

}  // namespace platform
