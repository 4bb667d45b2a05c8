#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <utility>

namespace platform {

namespace {

// The most timers or posts that run while one of the other kind waits.
constexpr int kCallsInARow = 16;

}  // namespace

VirtualRunLoop::~VirtualRunLoop() {
  // Drop the posts while all members still exist: a callback may own timers and sources of this
  // loop, and its destructor may post again.
  for (auto& queue : urgentPosts_) {
    while (queue.pop()) {
    }
  }
  nextPost_.reset();
  while (posts_.pop()) {
  }
  outsideEvents_.clear();
}

std::unique_ptr<RunLoopHandle> VirtualRunLoop::startTimer(Duration delay, Repeat repeat,
                                                          Callback callback) {
  assert(repeat == Repeat::kOnce || delay > Duration::zero());
  const Duration period = repeat == Repeat::kEvery ? delay : Duration::zero();
  return timers_.add({instantAfter(now(), delay), ++lastOrder_}, period, std::move(callback));
}

void VirtualRunLoop::post(Callback callback, Urgency urgency) {
  if (urgency == Urgency::kOrdinary) {
    posts_.push({{now(), ++lastOrder_}, std::move(callback)});
  } else {
    urgentPosts_[static_cast<std::size_t>(urgency)].push(std::move(callback));
  }
}

Result<std::unique_ptr<RunLoopHandle>> VirtualRunLoop::watchReadable(Descriptor descriptor,
                                                                     Urgency urgency,
                                                                     Callback callback) {
  return sources_.add(descriptor, urgency, std::move(callback));
}

void VirtualRunLoop::run() {
  assert(!running_);
  running_ = true;
  while (!stopping_ && (serveOne() || moveToNext(Instant::max()))) {
  }
  running_ = false;
  stopping_ = false;
}

void VirtualRunLoop::sleepFor(Duration duration) {
  const Instant end = instantAfter(now(), duration);
  runOutsideEvents(end);
  now_ = std::max(now(), end);
}

bool VirtualRunLoop::waitFor(Duration limit, const std::function<bool()>& done) {
  const Instant end = instantAfter(now(), limit);
  while (!done()) {
    const bool nothingComes = outsideEvents_.empty() || outsideEvents_.begin()->first > end;
    const Instant next = nothingComes ? end : outsideEvents_.begin()->first;
    runOutsideEvents(next);
    now_ = std::max(now(), next);
    if (nothingComes) return done();
  }
  return true;
}

void VirtualRunLoop::runReady() {
  while (serveOne()) {
  }
}

void VirtualRunLoop::advanceBy(Duration duration) {
  const Instant end = instantAfter(now(), duration);
  do {
    runReady();
  } while (moveToNext(end));
  now_ = std::max(now(), end);
}

void VirtualRunLoop::scheduleOutsideEvent(Duration delay, Callback event) {
  outsideEvents_.emplace(instantAfter(now(), delay), std::move(event));
}

bool VirtualRunLoop::deliverMoreUrgent(Urgency urgency) {
  if (urgency == Urgency::kTermination) {
    runOutsideEvents(now());
    return false;
  }
  const auto next = static_cast<Urgency>(std::to_underlying(urgency) - 1);
  bool delivered = deliverMoreUrgent(next);
  // Counted once: events that the callbacks cause wait for the next turn.
  std::size_t left = urgentPosts_[std::to_underlying(next)].size() + sources_.countReady(next);
  for (; left > 0 && !mustStop() && callUrgent(next); --left) {
    delivered = true;
    deliverMoreUrgent(next);
  }
  return delivered;
}

bool VirtualRunLoop::callUrgent(Urgency urgency) {
  if (auto callback = urgentPosts_[std::to_underlying(urgency)].pop()) {
    (*callback)();
    return true;
  }
  return sources_.callOne(urgency);
}

bool VirtualRunLoop::callDue() {
  if (!nextPost_) nextPost_ = posts_.pop();
  const bool postIsDue = nextPost_.has_value();
  const bool timerIsDue = !timers_.empty() && timers_.earliest().due <= now();
  if (!postIsDue && !timerIsDue) return false;
  bool callPost = postIsDue && !(timerIsDue && timers_.earliest() < nextPost_->key);
  const bool bothWait = postIsDue && timerIsDue;
  if (bothWait && callPost == postWasLast_ && ++callsInARow_ >= kCallsInARow) callPost = !callPost;
  if (!bothWait || callPost != postWasLast_) callsInARow_ = 0;
  postWasLast_ = callPost;
  if (callPost) {
    auto posted = std::exchange(nextPost_, std::nullopt);  // It may run the loop itself.
    posted->callback();
  } else {
    timers_.fireEarliest(now());
  }
  return true;
}

bool VirtualRunLoop::serveOne() {
  const bool delivered = deliverMoreUrgent(Urgency::kOrdinary);
  if (mustStop()) return true;
  // Sources and other callbacks take turns, so that neither starves the other.
  if (!sourceWasLast_ && sources_.callOne(Urgency::kOrdinary)) return sourceWasLast_ = true;
  sourceWasLast_ = false;
  return callDue() || sources_.callOne(Urgency::kOrdinary) || delivered;
}

bool VirtualRunLoop::moveToNext(Instant limit) {
  Instant next = Instant::max();
  if (timers_.empty() && outsideEvents_.empty()) return false;
  if (!timers_.empty()) next = timers_.earliest().due;
  if (!outsideEvents_.empty()) next = std::min(next, outsideEvents_.begin()->first);
  if (next > std::max(limit, now())) return false;
  now_ = std::max(now(), next);
  runOutsideEvents(now());
  return true;
}

void VirtualRunLoop::runOutsideEvents(Instant until) {
  // An event may take time itself.
  while (!outsideEvents_.empty() && outsideEvents_.begin()->first <= std::max(until, now())) {
    auto event = outsideEvents_.extract(outsideEvents_.begin());
    now_ = std::max(now(), event.key());
    event.mapped()();
  }
}

}  // namespace platform
