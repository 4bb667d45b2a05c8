#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "Platform/Linux/Logging/LogBuffer.h"
#include "Platform/Linux/Logging/LogProgress.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// Puts a bounded buffer and a thread in front of another sink, so that no caller waits for a disk.
// The thread writes the messages of all callers in the order in which they came. If the receiver of
// the other sink has no room at the moment (EAGAIN), messages wait. Those that are refused for
// another reason are counted and reported before the next one.
//
// The thread is started by the first message. It blocks all signals, so no handler of the program
// runs on it, and it never preempts the thread that logs. Any thread may use this.
class BufferedLogSink final : public LogSink {
 public:
  // The time that the destructor waits for the disk. A program has two of these sinks, and ends
  // within a second even if both hang.
  static constexpr Duration kEndTime = std::chrono::milliseconds(500);

  explicit BufferedLogSink(std::unique_ptr<LogSink> sink, LogBuffer::Limits limits = {});
  BufferedLogSink(const BufferedLogSink&) = delete;
  BufferedLogSink& operator=(const BufferedLogSink&) = delete;
  // Writes the messages that are buffered, within kEndTime, and drops the rest. A thread that hangs
  // in the other sink keeps it, and ends when the call returns.
  ~BufferedLogSink() override;

  // Does not wait. Fails with kExhausted if the buffer has no room for the message (urgent ones
  // have a reserve) or there can be no thread.
  Result<void> write(const LogRecord& record) override;

  // Waits until every message that was taken before is written or refused, or `limit` is over.
  // Returns the number of messages that are neither.
  std::uint64_t flush(Duration limit);

  // The messages that the other sink has refused and that are not reported yet.
  std::uint64_t lost() const;

  // Shared with the thread, and with code that runs when the program crashes.
  std::shared_ptr<const LogProgress> progress() const;

 private:
  class Writer;

  // Shared with the thread, which may outlive this.
  const std::shared_ptr<Writer> writer_;
};

}  // namespace platform
