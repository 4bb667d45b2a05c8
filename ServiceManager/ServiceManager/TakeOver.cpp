#include "ServiceManager/ServiceManager/TakeOver.h"

#include <string>
#include <utility>
#include <vector>

using namespace platform;

void TakeOver::begin() {
  state_ = State::kGoesOn;
  environment_.timers.performAfterDelay({"take over"}, kTakeOverTime, [this] { end(); });
}

void TakeOver::whenReady(ServiceEnforcement::CompletionBlock ready) {
  if (!goesOn()) return ready();
  onReady_ = std::move(ready);
}

void TakeOver::continueIfQuiet() {
  if (!goesOn() || isObserved_ || !hasEvaluated_ || environment_.isDeciding()) return;
  std::vector<std::string> labels;
  for (const auto& [label, work] : environment_.enforcement.work()) labels.push_back(label);
  if (labels.empty()) return end();
  isObserved_ = true;
  environment_.enforcement.whenSettled(labels, [this, isAlive = std::weak_ptr(isAlive_)] {
    if (isAlive.expired()) return;  // The work on services ends after this object.
    isObserved_ = false;
    continueIfQuiet();
  });
}

void TakeOver::end() {
  if (!goesOn()) return;
  state_ = State::kHasEnded;
  environment_.onEnd();
  if (auto ready = std::exchange(onReady_, nullptr)) ready();
}
