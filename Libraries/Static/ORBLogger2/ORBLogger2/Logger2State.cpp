#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"

#include <array>
#include <charconv>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"

using platform::AslClient;
using platform::SerialQueue;
using platform::stringWithFormat;

namespace {

constexpr char kFacility[] = "com.vantor.hostagent";
constexpr char kControlQueueLabel[] = "com.vantor.logger2.default";
constexpr char kProcessQueueKey[] = "com.vantor.logger2.default.process";
constexpr std::string_view kWorkQueuePrefix = "com.vantor.logger2.workqueue";
constexpr std::string_view kCountSuffix = ".count";

// The key of a thread's queue. It is on the stack, since every line needs one.
class QueueKey {
 public:
  explicit QueueKey(std::uint32_t threadNumber) {
    char* end = kWorkQueuePrefix.copy(buffer_.data(), kWorkQueuePrefix.size()) + buffer_.data();
    *end++ = '.';
    // Formatted like `%d`: negative from 2^31 on.
    end =
        std::to_chars(end, buffer_.data() + buffer_.size(), static_cast<std::int32_t>(threadNumber))
            .ptr;
    size_ = static_cast<std::size_t>(end - buffer_.data());
  }

  std::string_view text() const { return {buffer_.data(), size_}; }

 private:
  std::array<char, 64> buffer_;
  std::size_t size_;
};

}  // namespace

Logger2State::Logger2State(platform::SystemLog& systemLog, platform::SerialQueues& queues)
    : systemLog_(systemLog), queues_(queues) {}

Logger2State::~Logger2State() = default;

std::shared_ptr<WorkQueue> Logger2State::makeWorkQueue(std::string label, std::string_view ident) {
  std::shared_ptr<SerialQueue> queue = queues_.makeQueue(std::move(label));
  // Null if the client could not be opened: the log then uses its default client.
  std::unique_ptr<AslClient> client = systemLog_.asl_open(ident, kFacility, 0);
  queue->setContext(platform::QueueContext(client.release(), &work_queue_finalizer));
  return std::make_shared<WorkQueue>(systemLog_, std::move(queue));
}

void Logger2State::initDefault() {
  std::call_once(initDefaultOnce_, [this] {
    const char* sender = defaultLogger2Sender;
    defaultLogger2ControlQueue_ =
        makeWorkQueue(kControlQueueLabel, sender != nullptr ? sender : "");
    constexpr std::size_t kInitialCapacity = 5;
    auto table = std::make_unique<Table>(kInitialCapacity);
    const std::lock_guard lock(threadQueuesMutex_);
    threadQueues_ = std::move(table);
  });
}

void Logger2State::processDefaultOpen(std::string_view ident) {
  std::call_once(processDefaultOpenOnce_, [this, ident] {
    std::shared_ptr<WorkQueue> queue = makeWorkQueue(kProcessQueueKey, ident);
    // Not on the control queue: a waiting open would block this. Without a table nothing is stored,
    // and this does not make one.
    const std::lock_guard lock(threadQueuesMutex_);
    if (threadQueues_) threadQueues_->insert_or_assign(kProcessQueueKey, std::move(queue));
  });
}

void Logger2State::open(std::string_view ident, std::uint32_t threadNumber) {
  initDefault();
  processDefaultOpen(ident);
  defaultLogger2ControlQueue_->queue()->sync(
      [this, ident, threadNumber] { openOnControlQueue(ident, threadNumber); });
}

void Logger2State::openOnControlQueue(std::string_view ident, std::uint32_t threadNumber) {
  const std::string key(QueueKey(threadNumber).text());
  const std::string countKey = key + std::string(kCountSuffix);
  if (queueUnder(key)) {
    const std::lock_guard lock(threadQueuesMutex_);
    ++std::get<int>(threadQueues_->try_emplace(countKey, 0).first->second);
    return;
  }
  std::shared_ptr<WorkQueue> queue = makeWorkQueue(key, ident);
  const std::lock_guard lock(threadQueuesMutex_);
  threadQueues_->insert_or_assign(key, std::move(queue));
  threadQueues_->insert_or_assign(countKey, 1);
}

void Logger2State::close(std::uint32_t threadNumber) {
  initDefault();
  defaultLogger2ControlQueue_->queue()->sync(
      [this, threadNumber] { closeOnControlQueue(threadNumber); });
}

void Logger2State::closeOnControlQueue(std::uint32_t threadNumber) {
  const std::string key(QueueKey(threadNumber).text());
  const std::string countKey = key + std::string(kCountSuffix);
  // Released after the lock, because the queue's finaliser may run.
  const std::shared_ptr<WorkQueue> queue = queueUnder(key);
  if (!queue) {
    const std::string text = stringWithFormat("No queue found for the key '%@'.", key);
    vantorlogger2_logging_error("%@", text);
    return;
  }
  const std::lock_guard lock(threadQueuesMutex_);
  const auto found = threadQueues_->find(countKey);
  int none = 0;
  int& count = found != threadQueues_->end() ? std::get<int>(found->second) : none;
  if (count == 1) {
    threadQueues_->erase(key);
    threadQueues_->erase(countKey);
  } else if (count > 1) {
    --count;
  }
}

std::shared_ptr<WorkQueue> Logger2State::queueUnder(std::string_view key) const {
  const std::lock_guard lock(threadQueuesMutex_);
  const std::shared_ptr<WorkQueue>* found = find(key);
  return found != nullptr ? *found : nullptr;
}

const std::shared_ptr<WorkQueue>* Logger2State::find(std::string_view key) const {
  const auto found = threadQueues_->find(key);
  if (found == threadQueues_->end()) return nullptr;
  return std::get_if<std::shared_ptr<WorkQueue>>(&found->second);
}

const std::shared_ptr<WorkQueue>& Logger2State::choose(std::uint32_t threadNumber) const {
  if (const auto* queue = find(QueueKey(threadNumber).text())) return *queue;
  if (const auto* queue = find(kProcessQueueKey)) return *queue;
  return defaultLogger2ControlQueue_;
}

std::shared_ptr<SerialQueue> Logger2State::queueFor(std::uint32_t threadNumber) {
  initDefault();
  const std::lock_guard lock(threadQueuesMutex_);
  return choose(threadNumber)->queue();
}

void Logger2State::log(std::uint32_t threadNumber, int level, std::string_view message,
                       const platform::LogFields& fields) {
  initDefault();
  std::shared_ptr<WorkQueue> toStart;
  {
    // Under the lock the table keeps the queue alive, which is enough for a line that joins a
    // pending block.
    const std::lock_guard lock(threadQueuesMutex_);
    const std::shared_ptr<WorkQueue>& queue = choose(threadNumber);
    if (queue->add(level, message, fields)) toStart = queue;
  }
  if (toStart) toStart->start();
}
