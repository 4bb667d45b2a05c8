#include "Platform/Linux/Logging/BufferedLogSink.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include <pthread.h>
#include <sched.h>

#include "Platform/Logging/LostMessages.h"

namespace platform {
namespace {

// Between two tries to pass on a message.
constexpr Duration kFirstPause = std::chrono::milliseconds(1);
constexpr Duration kLongestPause = std::chrono::milliseconds(50);

// Threads that are made while it lives block all signals.
class SignalFreeThreads {
 public:
  SignalFreeThreads() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalFreeThreads(const SignalFreeThreads&) = delete;
  SignalFreeThreads& operator=(const SignalFreeThreads&) = delete;
  ~SignalFreeThreads() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

// Under SCHED_BATCH (see sched(7)) a thread that wakes does not preempt the one that woke it. If
// this thread has inherited another policy than the usual one, somebody chose that.
void nameAndScheduleThisThread() {
  ::pthread_setname_np(::pthread_self(), "log");
  const sched_param none{};
  if (::sched_getscheduler(0) == SCHED_OTHER) ::sched_setscheduler(0, SCHED_BATCH, &none);
}

}  // namespace

class BufferedLogSink::Writer : public std::enable_shared_from_this<Writer> {
 public:
  Writer(std::unique_ptr<LogSink> sink, LogBuffer::Limits limits)
      : sink_(std::move(sink)), buffer_(limits) {}

  Result<void> write(const LogRecord& record) {
    bool wasIdle = false;
    {
      const std::lock_guard lock(mutex_);
      if (!thread_.joinable()) {
        if (auto started = start(); !started) return started;
      }
      if (!buffer_.add(record))
        return std::unexpected(Error{ErrorCode::kExhausted, 0, "the log's buffer is full"});
      progress_->taken.fetch_add(1, std::memory_order_release);
      wasIdle = std::exchange(isIdle_, false);
    }
    if (wasIdle) changed_.notify_one();
    return {};
  }

  std::uint64_t flush(Duration limit) {
    std::unique_lock lock(mutex_);
    const std::uint64_t wanted = progress_->taken;
    ++flushes_;
    passed_.wait_for(lock, limit, [&] { return progress_->passed >= wanted; });
    --flushes_;
    return wanted - std::min<std::uint64_t>(wanted, progress_->passed);
  }

  // Ends the thread, or leaves it alone if it hangs in the sink.
  void end(Duration limit) {
    std::unique_lock lock(mutex_);
    if (!thread_.joinable()) return;
    isEnding_ = true;
    changed_.notify_one();
    if (passed_.wait_for(lock, limit, [&] { return hasEnded_; })) {
      lock.unlock();
      return thread_.join();
    }
    isLeftAlone_ = true;
    changed_.notify_one();
    thread_.detach();
  }

  std::uint64_t lost() const { return lost_.number(); }
  std::shared_ptr<const LogProgress> progress() const { return progress_; }

 private:
  // Requires the lock.
  Result<void> start() {
    const SignalFreeThreads signalFree;
    try {
      thread_ = std::thread([self = shared_from_this()] { self->run(); });
    } catch (const std::system_error& error) {
      return std::unexpected(
          Error{ErrorCode::kExhausted, error.code().value(), "a thread for the log"});
    }
    return {};
  }

  void run() {
    nameAndScheduleThisThread();
    LogBuffer::Batch batch;
    std::unique_lock lock(mutex_);
    while (awaitMessages(lock)) {
      buffer_.take(batch);
      for (std::size_t i = 0; i < batch.size() && !isLeftAlone_; ++i) {
        const LogRecord record = batch[i];
        pass(record, lock);
        buffer_.release(LogBuffer::costOf(record));
        progress_->passed.fetch_add(1, std::memory_order_release);
        if (flushes_ > 0) passed_.notify_all();
      }
      batch.clear();
    }
    if (!isLeftAlone_) {
      lock.unlock();
      static_cast<void>(lost_.report(*sink_, /*isUrgent=*/false));
      lock.lock();
    }
    hasEnded_ = true;
    passed_.notify_all();
  }

  // Waits for a message. False if the thread is to end.
  bool awaitMessages(std::unique_lock<std::mutex>& lock) {
    while (buffer_.empty() && !isEnding_) {
      isIdle_ = true;
      changed_.wait(lock);
      isIdle_ = false;
    }
    return !buffer_.empty() && !isLeftAlone_;
  }

  // Writes the message, or counts it as lost. Retries while the receiver has no room at the moment.
  // Releases the lock meanwhile.
  void pass(const LogRecord& record, std::unique_lock<std::mutex>& lock) {
    for (Duration pause = kFirstPause;; pause = std::min(2 * pause, kLongestPause)) {
      lock.unlock();
      const auto written = tryToPass(record);
      lock.lock();
      if (written) return;
      if (written.error().osError != EAGAIN || isLeftAlone_) return lost_.count();
      changed_.wait_for(lock, pause, [&] { return isLeftAlone_; });
    }
  }

  // A sink that refuses the short report would refuse the message, too.
  Result<void> tryToPass(const LogRecord& record) {
    auto written = lost_.report(*sink_, record.isUrgent);
    if (written) written = sink_->write(record);
    return written;
  }

  const std::unique_ptr<LogSink> sink_;
  // Shared with code that runs when the program crashes.
  const std::shared_ptr<LogProgress> progress_ = std::make_shared<LogProgress>();
  LostMessages lost_;

  std::mutex mutex_;
  std::condition_variable changed_;  // the thread has something to do
  std::condition_variable passed_;   // the thread has got on
  LogBuffer buffer_;
  std::thread thread_;
  int flushes_ = 0;
  bool isIdle_ = false;
  bool isEnding_ = false;
  bool hasEnded_ = false;
  bool isLeftAlone_ = false;
};

BufferedLogSink::BufferedLogSink(std::unique_ptr<LogSink> sink, LogBuffer::Limits limits)
    : writer_(std::make_shared<Writer>(std::move(sink), limits)) {}

BufferedLogSink::~BufferedLogSink() { writer_->end(kEndTime); }

Result<void> BufferedLogSink::write(const LogRecord& record) { return writer_->write(record); }

std::uint64_t BufferedLogSink::flush(Duration limit) { return writer_->flush(limit); }

std::uint64_t BufferedLogSink::lost() const { return writer_->lost(); }

std::shared_ptr<const LogProgress> BufferedLogSink::progress() const { return writer_->progress(); }

}  // namespace platform
