#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <source_location>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Logging/LogFields.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/Values/KernelIds.h"

// The pending lines of one of logger 2's serial queues. Lines that come while others wait are
// written by the same block. A block for each line would cost the caller more than the line's text
// does: for its memory, which another thread would have to free, and for waking that thread.
//
// Owned jointly by the logger's table, by callers that start it, and by the pending block, so that
// pending lines are written even after the last close. Any thread may use it.
class WorkQueue : public std::enable_shared_from_this<WorkQueue> {
 public:
  // The limit of the pending lines in bytes, since a disk that has become slow would otherwise fill
  // the memory. Lines beyond it count as lost, see SystemLog.
  static constexpr std::size_t kMaximumBacklog = std::size_t{8} << 20;
  // The cost of a pending line beside its text.
  static constexpr std::size_t kLineOverhead = 64;

  // The queue's context is the client that writes the lines. `systemLog` outlives this.
  WorkQueue(platform::SystemLog& systemLog, std::shared_ptr<platform::SerialQueue> queue);

  // Shared with its pending blocks and with the logger's callers.
  const std::shared_ptr<platform::SerialQueue>& queue() const { return queue_; }

  // Copies the text and the label. True if no block is pending, so that the caller must call
  // start().
  [[nodiscard]] bool add(int level, std::string_view text, const platform::LogFields& fields);

  // Submits the block that writes the pending lines. Returns at once.
  void start();

 private:
  struct Lines {
    struct Line {
      int level;
      std::size_t size;
      std::size_t label;  // its size
      const char* messageId;
      platform::ProcessId process;
      std::source_location where;
    };
    std::string texts;  // one after the other, each with its label behind it
    std::vector<Line> lines;

    std::size_t cost() const { return texts.size() + lines.size() * kLineOverhead; }
  };

  void writeWaiting();

  platform::SystemLog& systemLog_;
  const std::shared_ptr<platform::SystemLog::Announced> announced_;  // the log's
  const std::shared_ptr<platform::SerialQueue> queue_;

  std::mutex mutex_;
  Lines waiting_;
  std::size_t costInWriting_ = 0;
  bool blockOnItsWay_ = false;

  // Used by the queue's blocks only, which run one at a time; a member to keep its memory.
  Lines inWriting_;
};
