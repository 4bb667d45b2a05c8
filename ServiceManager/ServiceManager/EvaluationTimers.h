#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/RunLoops/DelayedCalls.h"
#include "Platform/RunLoops/RunLoop.h"

// The timers and delayed calls that make the daemon evaluate, and when each is due. Belongs to the
// main thread. Calls that are pending when this is destroyed are dropped.
class EvaluationTimers {
 public:
  using Callback = std::function<void()>;

  static constexpr platform::Duration kWatchDogInterval = std::chrono::seconds(900);
  static constexpr std::chrono::duration<double> kSettingsChangeDelay{2.0};
  static constexpr platform::Duration kReevaluationPeriod = std::chrono::seconds(20);
  // A stop that is due is not withdrawn if a switch asks for the service again within this time.
  static constexpr platform::Duration kFeatureShutdownDelay = std::chrono::seconds(3);

  // `runLoop` outlives this. `onChange` is called when a due time has changed, but not when a timer
  // fires.
  explicit EvaluationTimers(
      platform::RunLoop& runLoop, Callback onChange = [] {})
      : runLoop_(runLoop), onChange_(std::move(onChange)), delayedCalls_(runLoop) {}

  // After this time a settings server that did not answer is asked again.
  static constexpr platform::Duration kHungServerRetryDelay =
      platform::NamedConnections::kHungServerPause + std::chrono::seconds(1);

  // Calls every kWatchDogInterval.
  void startWatchDog(Callback call);
  // Calls once, kSettingsChangeDelay after a change of the settings. Such a timer must not exist
  // yet.
  void startSettingsChangeTimer(Callback call);
  void cancelSettingsChangeTimer();
  // Calls once, after kReevaluationPeriod.
  void startReevaluationTimer(Callback call);
  void cancelReevaluationTimer();
  // Calls once, after kFeatureShutdownDelay. A shut-down of the service that is pending stays as it
  // is, and no other is added.
  void shutDownLater(const std::string& label, Callback call);
  // Calls once, after the delay, unless a call with this key is pending.
  void performAfterDelay(platform::DelayedCalls::Key key, platform::Duration delay, Callback call);

  // Null if there is none.
  const platform::RunLoopHandle* watchDog() const { return watchDog_.handle.get(); }
  // This includes a timer that has fired: an evaluation in the normal mode cancels it.
  const platform::RunLoopHandle* globalSettingsDidChangeEffectTimer() const {
    return settingsChange_.handle.get();
  }
  const platform::RunLoopHandle* reevaluationTimer() const { return reevaluation_.handle.get(); }

  // When each is due; nothing if there is none. A time in the past belongs to a timer that is
  // overdue or has fired.
  struct DueTimes {
    std::optional<platform::Instant> watchDog;  // repeats with kWatchDogInterval
    std::optional<platform::Instant> settingsEvaluation;
    std::optional<platform::Instant> reevaluation;
    std::map<std::string, platform::Instant, std::less<>> shutdowns;  // by label
  };
  DueTimes dueTimes() const;

  // The time until each is due; negative or zero if it is overdue or has fired, nothing if there is
  // none.
  std::optional<platform::Duration> untilWatchDog() const;
  std::optional<platform::Duration> untilSettingsEvaluation() const;
  std::optional<platform::Duration> untilReevaluation() const;
  // The pending shut-down of the service.
  std::optional<platform::Duration> untilShutdown(std::string_view label) const;

 private:
  struct DueTimer {
    std::unique_ptr<platform::RunLoopHandle> handle;
    platform::Instant due;
  };
  DueTimer startOnce(platform::Duration delay, Callback call);
  std::optional<platform::Duration> until(const DueTimer& timer) const;

  platform::RunLoop& runLoop_;
  const Callback onChange_;
  DueTimer watchDog_;
  DueTimer settingsChange_;
  DueTimer reevaluation_;
  platform::DelayedCalls delayedCalls_;
};
