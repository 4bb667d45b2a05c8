#include "Platform/Linux/RunLoops/AsioRunLoop.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include <asio/post.hpp>

namespace platform {

namespace {

// The most timers, posts or sources that are called before the other two get their turn.
constexpr std::size_t kCallbacksPerTurn = 16;

// The least urgent kind that comes before this one.
Urgency moreUrgent(Urgency urgency) {
  return static_cast<Urgency>(std::to_underlying(urgency) - 1);
}

}  // namespace

Result<std::unique_ptr<AsioRunLoop>> AsioRunLoop::create() {
  auto urgent = EpollSet::create();
  if (!urgent) return std::unexpected(std::move(urgent.error()));
  auto ordinary = EpollSet::create();
  if (!ordinary) return std::unexpected(std::move(ordinary.error()));
  try {
    return std::unique_ptr<AsioRunLoop>(new AsioRunLoop(std::move(*urgent), std::move(*ordinary)));
  } catch (const std::system_error& error) {
    return std::unexpected(
        Error{ErrorCode::kExhausted, error.code().value(), "creating the run loop"});
  }
}

AsioRunLoop::AsioRunLoop(EpollSet urgent, EpollSet ordinary)
    : urgent_(std::move(urgent)),
      ordinary_(std::move(ordinary)),
      urgentReady_(io_),
      ordinaryReady_(io_),
      alarm_(io_) {
  urgentReady_.assign(urgent_.descriptor());
  try {
    ordinaryReady_.assign(ordinary_.descriptor());
  } catch (...) {
    std::ignore = urgentReady_.release();  // The set closes it.
    throw;
  }
  awaitUrgent();
  awaitSources();
}

AsioRunLoop::~AsioRunLoop() {
  // Drop the posts while all members still exist: a callback may own timers and sources of this
  // loop, and its destructor may post again.
  for (auto& queue : posts_) {
    while (queue.pop()) {
    }
  }
  std::ignore = urgentReady_.release();  // The sets close them.
  std::ignore = ordinaryReady_.release();
}

Instant AsioRunLoop::now() const {
  return Instant(std::chrono::steady_clock::now().time_since_epoch());
}

WallTime AsioRunLoop::wallTime() const { return std::chrono::system_clock::now(); }

std::unique_ptr<RunLoopHandle> AsioRunLoop::startTimer(Duration delay, Repeat repeat,
                                                       Callback callback) {
  assert(repeat == Repeat::kOnce || delay > Duration::zero());
  const Duration period = repeat == Repeat::kEvery ? delay : Duration::zero();
  const TimerQueue::Key key{instantAfter(now(), delay), ++lastTimer_};
  auto timer = timers_.add(key, period, std::move(callback));
  awaitTimer();
  return timer;
}

void AsioRunLoop::post(Callback callback, Urgency urgency) {
  posts_[std::to_underlying(urgency)].push(std::move(callback));
  wake();
}

Result<std::unique_ptr<RunLoopHandle>> AsioRunLoop::watchReadable(Descriptor descriptor,
                                                                  Urgency urgency,
                                                                  Callback callback) {
  ReadableSources& sources = urgency == Urgency::kOrdinary ? ordinary_ : urgent_;
  return sources.add(descriptor, urgency, std::move(callback));
}

void AsioRunLoop::run() {
  assert(!running_);
  running_ = true;
  if (!stopping_) io_.run();
  running_ = false;
  stopping_ = false;
  io_.restart();
}

void AsioRunLoop::stop() {
  stopping_ = true;
  io_.stop();
}

void AsioRunLoop::sleepFor(Duration duration) { std::this_thread::sleep_for(duration); }

void AsioRunLoop::deliverMoreUrgent(Urgency urgency) {
  if (urgency == Urgency::kTermination) return urgent_.collect();
  const Urgency next = moreUrgent(urgency);
  deliverMoreUrgent(next);
  // Counted once: events that the callbacks cause wait for the next turn.
  for (std::size_t left = countUrgent(next); left > 0 && !stopping_; --left) {
    if (!callUrgent(next)) return;
    deliverMoreUrgent(next);
  }
}

std::size_t AsioRunLoop::countUrgent(Urgency urgency) const {
  return posts_[std::to_underlying(urgency)].size() + urgent_.collected(urgency);
}

bool AsioRunLoop::callUrgent(Urgency urgency) {
  if (auto callback = posts_[std::to_underlying(urgency)].pop()) {
    (*callback)();
    return true;
  }
  return urgent_.callCollected(urgency);
}

void AsioRunLoop::wake() {
  if (awake_.exchange(true)) return;
  asio::post(io_, [this] { servePosts(); });
}

void AsioRunLoop::wakeIfPending() {
  for (const Urgency urgency :
       {Urgency::kTermination, Urgency::kProcessExit, Urgency::kConnectionDeath}) {
    if (countUrgent(urgency) > 0) return wake();
  }
  if (!posts_[std::to_underlying(Urgency::kOrdinary)].empty()) wake();
}

void AsioRunLoop::servePosts() {
  awake_ = false;
  deliverMoreUrgent(Urgency::kOrdinary);
  HandOverQueue<Callback>& posts = posts_[std::to_underlying(Urgency::kOrdinary)];
  // Calls posted meanwhile wait for the next turn, too.
  for (std::size_t left = std::min(posts.size(), kCallbacksPerTurn); left > 0 && !stopping_;
       --left) {
    auto callback = posts.pop();
    assert(callback);
    (*callback)();
    callback.reset();
    deliverMoreUrgent(Urgency::kOrdinary);
  }
  wakeIfPending();
}

void AsioRunLoop::serveTimers() {
  // Timers that fall due meanwhile wait for the next turn, too.
  const Instant limit = now();
  for (std::size_t left = kCallbacksPerTurn; left > 0; --left) {
    deliverMoreUrgent(Urgency::kOrdinary);
    if (stopping_ || timers_.empty() || timers_.earliest().due > limit) break;
    timers_.fireEarliest(now());
  }
  awaitTimer();
  wakeIfPending();
}

void AsioRunLoop::serveSources() {
  for (std::size_t left = kCallbacksPerTurn; left > 0; --left) {
    deliverMoreUrgent(Urgency::kOrdinary);
    if (stopping_ || !ordinary_.callOne()) break;
  }
  awaitSources();
  wakeIfPending();
}

void AsioRunLoop::awaitUrgent() {
  urgentReady_.async_wait(asio::posix::stream_descriptor::wait_read, [this](std::error_code error) {
    if (error) return;
    deliverMoreUrgent(Urgency::kOrdinary);
    awaitUrgent();
    wakeIfPending();
  });
}

void AsioRunLoop::awaitSources() {
  // A new wait reports readable descriptors again, so those that this turn left over are not lost.
  ordinaryReady_.async_wait(asio::posix::stream_descriptor::wait_read,
                            [this](std::error_code error) {
                              if (!error) serveSources();
                            });
}

void AsioRunLoop::awaitTimer() {
  if (timers_.empty()) return;
  const Instant due = timers_.earliest().due;
  if (alarmAt_ && *alarmAt_ <= due) return;  // The earlier alarm calls this again.
  alarmAt_ = due;
  alarm_.expires_at(std::chrono::steady_clock::time_point(due.time_since_epoch()));
  alarm_.async_wait([this](std::error_code error) {
    if (error) return;  // Replaced by an earlier one.
    alarmAt_.reset();
    serveTimers();
  });
}

}  // namespace platform
