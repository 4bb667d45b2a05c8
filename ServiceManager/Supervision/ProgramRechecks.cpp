#include "ServiceManager/Supervision/ProgramRechecks.h"

#include <algorithm>

using namespace platform;

Duration nextRecheckPause(Duration pause) {
  return std::clamp(2 * pause, ProgramRechecks::kFirstPause, ProgramRechecks::kLongestPause);
}

void ProgramRechecks::couldNotCheck(const std::string& label) {
  Waiting& waiting = waiting_[label];
  waiting.isRefused = false;
  waiting.pause = nextRecheckPause(waiting.pause);
  checkAfter(label, waiting, waiting.pause);
}

void ProgramRechecks::hasChecked(const std::string& label) {
  waiting_.erase(label);
  for (auto& [other, waiting] : waiting_) {
    if (!waiting.isRefused) checkAfter(other, waiting, Duration::zero());
  }
}

void ProgramRechecks::wasRefused(const std::string& label) {
  Waiting& waiting = waiting_[label];
  if (waiting.isRefused && waiting.isCheckDue) return;
  Duration& pause = refusals_[label];
  pause = nextRecheckPause(pause);
  waiting.isRefused = true;
  checkAfter(label, waiting, pause);
}

void ProgramRechecks::forget(const std::string& label) {
  waiting_.erase(label);
  refusals_.erase(label);
}

std::set<std::string, std::less<>> ProgramRechecks::waiting() const {
  std::set<std::string, std::less<>> labels;
  for (const auto& [label, waiting] : waiting_) labels.insert(label);
  return labels;
}

void ProgramRechecks::checkAfter(const std::string& label, Waiting& waiting, Duration delay) {
  waiting.isCheckDue = true;
  waiting.timer = runLoop_.startTimer(delay, RunLoop::Repeat::kOnce, [this, label] {
    waiting_.at(label).isCheckDue = false;
    check_(label);
  });
}
