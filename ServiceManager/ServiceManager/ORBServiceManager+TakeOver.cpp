#include <string>
#include <utility>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"

// The time after the start in which the daemon does not watch every service that runs yet: those
// that an earlier daemon has left behind, and those that it starts itself.

using namespace platform;

void ORBServiceManager::backgroundServiceWhenReady(CompletionBlock ready) {
  if (takeOver_ != TakeOver::kGoesOn) return ready();
  onReady_ = std::move(ready);
}

void ORBServiceManager::beginTakeOver() {
  takeOver_ = TakeOver::kGoesOn;
  timers_.performAfterDelay({"take over"}, kTakeOverTime, [this] { endTakeOver(); });
}

// Called when all turns are over, and when settings servers have answered.
void ORBServiceManager::continueTakeOver() {
  if (takeOver_ != TakeOver::kGoesOn || isTakeOverObserved_) return;
  // The services that are still being worked on are awaited below.
  if (!hasEvaluated_ || turns_.waiting() > 0 || !askedServices_.empty()) return;
  Array labels;
  for (const auto& [label, work] : enforcement_.work()) labels.push_back(Value(label));
  if (labels.empty()) return endTakeOver();
  isTakeOverObserved_ = true;
  whenSettled(labels, [this, isAlive = std::weak_ptr(isAlive_)] {
    if (isAlive.expired()) return;  // The services end with this object.
    isTakeOverObserved_ = false;
    continueTakeOver();
  });
}

void ORBServiceManager::endTakeOver() {
  if (takeOver_ != TakeOver::kGoesOn) return;
  takeOver_ = TakeOver::kHasEnded;
  operatorPublisher_.changed();
  if (auto ready = std::exchange(onReady_, nullptr)) ready();
}
