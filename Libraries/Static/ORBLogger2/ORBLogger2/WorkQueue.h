#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/SerialQueue.h"

// The lines that wait for one of logger 2's serial queues. Those that come while others wait are
// written by the same block: a block for each would cost the caller more than the line's text does,
// for its memory, which another thread would have to free, and for waking that thread.
//
// Owned jointly by the logger's table, by callers that start it, and by the block that is on its
// way, so that what waits is written also after the last close. Any thread may use it.
class WorkQueue : public std::enable_shared_from_this<WorkQueue> {
 public:
  // What may wait, in bytes. A disk that has become slow would otherwise take the memory; what is
  // beyond counts as lost, see SystemLog.
  static constexpr std::size_t kMaximumBacklog = std::size_t{8} << 20;
  // What a line costs while it waits, beside its text.
  static constexpr std::size_t kLineOverhead = 64;

  // The queue's context is the client that the lines are written with. `systemLog` outlives this.
  WorkQueue(platform::SystemLog& systemLog, std::shared_ptr<platform::SerialQueue> queue);

  // Shared with its pending blocks and with whoever asked the logger for it.
  const std::shared_ptr<platform::SerialQueue>& queue() const { return queue_; }

  // Copies the text. Whether start() is to be called, since no block is on its way yet.
  [[nodiscard]] bool add(int level, std::string_view text);

  // Submits the block that writes what waits. Returns at once.
  void start();

 private:
  struct Lines {
    struct Line {
      int level;
      std::size_t size;
    };
    std::string texts;  // one after the other
    std::vector<Line> lines;

    std::size_t cost() const { return texts.size() + lines.size() * kLineOverhead; }
  };

  void writeWaiting();

  platform::SystemLog& systemLog_;
  const std::shared_ptr<platform::SerialQueue> queue_;

  std::mutex mutex_;
  Lines waiting_;
  std::size_t costInWriting_ = 0;
  bool blockOnItsWay_ = false;

  // Used by the queue's blocks only, which run one at a time; kept for its memory.
  Lines inWriting_;
};
