#include "Libraries/Static/ORBLogger2/ORBLogger2/WorkQueue.h"

#include <utility>

namespace {

// A burst's memory is kept up to this size for the next one.
constexpr std::size_t kKeptText = std::size_t{64} << 10;
constexpr std::size_t kKeptLines = 1024;

}  // namespace

WorkQueue::WorkQueue(platform::SystemLog& systemLog, std::shared_ptr<platform::SerialQueue> queue)
    : systemLog_(systemLog), announced_(systemLog.announced()), queue_(std::move(queue)) {}

bool WorkQueue::add(int level, std::string_view text, const platform::LogFields& fields) {
  text = text.substr(0, platform::SystemLog::kMaximumMessageSize + 1);  // It is cut there anyway.
  const std::lock_guard lock(mutex_);
  const std::size_t cost =
      waiting_.cost() + costInWriting_ + text.size() + fields.label.size() + kLineOverhead;
  if (cost > kMaximumBacklog) {
    systemLog_.countLost();
    return false;
  }
  waiting_.texts.append(text).append(fields.label);
  waiting_.lines.push_back(
      {level, text.size(), fields.label.size(), fields.messageId, fields.process, fields.where});
  announced_->fetch_add(1, std::memory_order_relaxed);
  return !std::exchange(blockOnItsWay_, true);
}

void WorkQueue::start() {
  queue_->async([self = shared_from_this()] { self->writeWaiting(); });
}

void WorkQueue::writeWaiting() {
  {
    const std::lock_guard lock(mutex_);
    std::swap(waiting_, inWriting_);
    costInWriting_ = inWriting_.cost();
    blockOnItsWay_ = false;
  }
  const auto* client = static_cast<const platform::AslClient*>(queue_->context());
  std::string_view texts = inWriting_.texts;
  const auto next = [&texts](std::size_t size) {
    const std::string_view text = texts.substr(0, size);
    texts.remove_prefix(size);
    return text;
  };
  for (const Lines::Line& line : inWriting_.lines) {
    const std::string_view text = next(line.size);
    systemLog_.asl_log(client, line.level, text,
                       {.messageId = line.messageId,
                        .label = next(line.label),
                        .process = line.process,
                        .where = line.where});
  }
  // Only now: whoever reads 0 finds them all in the log.
  announced_->fetch_sub(inWriting_.lines.size(), std::memory_order_release);
  inWriting_.texts.clear();
  inWriting_.lines.clear();
  if (inWriting_.texts.capacity() > kKeptText) inWriting_.texts = {};
  if (inWriting_.lines.capacity() > kKeptLines) inWriting_.lines = {};
  const std::lock_guard lock(mutex_);
  costInWriting_ = 0;
}
