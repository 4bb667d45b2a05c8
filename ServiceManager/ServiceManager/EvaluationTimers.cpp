#include "ServiceManager/ServiceManager/EvaluationTimers.h"

#include <utility>

using namespace platform;

namespace {

constexpr char kShutDown[] = "shut down";

DelayedCalls::Key shutdownOf(std::string_view label) { return {kShutDown, std::string(label)}; }

}  // namespace

void EvaluationTimers::startWatchDog(Callback call) {
  watchDog_.due = runLoop_.now() + kWatchDogInterval;
  watchDog_.handle =
      runLoop_.startTimer(kWatchDogInterval, RunLoop::Repeat::kEvery, std::move(call));
  onChange_();
}

EvaluationTimers::DueTimer EvaluationTimers::startOnce(Duration delay, Callback call) {
  const Instant due = runLoop_.now() + delay;
  return {runLoop_.startTimer(delay, RunLoop::Repeat::kOnce, std::move(call)), due};
}

void EvaluationTimers::startSettingsChangeTimer(Callback call) {
  settingsChange_ =
      startOnce(std::chrono::duration_cast<Duration>(kSettingsChangeDelay), std::move(call));
  onChange_();
}

void EvaluationTimers::cancelSettingsChangeTimer() {
  settingsChange_ = {};
  onChange_();
}

void EvaluationTimers::startReevaluationTimer(Callback call) {
  reevaluation_ = startOnce(kReevaluationPeriod, std::move(call));
  onChange_();
}

void EvaluationTimers::cancelReevaluationTimer() {
  reevaluation_ = {};
  onChange_();
}

void EvaluationTimers::shutDownLater(const std::string& label, Callback call) {
  performAfterDelay(shutdownOf(label), kFeatureShutdownDelay, std::move(call));
}

void EvaluationTimers::performAfterDelay(DelayedCalls::Key key, Duration delay, Callback call) {
  delayedCalls_.perform(std::move(key), std::move(call), delay);
  onChange_();
}

EvaluationTimers::DueTimes EvaluationTimers::dueTimes() const {
  const auto due = [](const DueTimer& timer) {
    return timer.handle ? std::optional(timer.due) : std::nullopt;
  };
  return {.watchDog = due(watchDog_),
          .settingsEvaluation = due(settingsChange_),
          .reevaluation = due(reevaluation_),
          .shutdowns = delayedCalls_.dueOfKind(kShutDown)};
}

std::optional<Duration> EvaluationTimers::until(const DueTimer& timer) const {
  if (!timer.handle) return std::nullopt;
  return timer.due - runLoop_.now();
}

std::optional<Duration> EvaluationTimers::untilWatchDog() const {
  if (!watchDog_.handle) return std::nullopt;
  const Duration since = runLoop_.now() - (watchDog_.due - kWatchDogInterval);
  return kWatchDogInterval - since % kWatchDogInterval;
}

std::optional<Duration> EvaluationTimers::untilSettingsEvaluation() const {
  return until(settingsChange_);
}

std::optional<Duration> EvaluationTimers::untilReevaluation() const { return until(reevaluation_); }

std::optional<Duration> EvaluationTimers::untilShutdown(std::string_view label) const {
  const std::optional<Instant> due = delayedCalls_.due(shutdownOf(label));
  if (!due) return std::nullopt;
  return *due - runLoop_.now();
}
