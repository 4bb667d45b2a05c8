#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "Shared/ORBSigningValidator.h"

// The check of the daemon's own bundle at its start. If the bundle can't be checked, for want of
// descriptors or memory, the check is repeated with a growing pause, also after the daemon has said
// that it is idle. Belongs to the main thread.
class OwnIntegrity {
 public:
  // A daemon whose own bundle can't be checked for so long is idle.
  static constexpr platform::Duration kMostTime = std::chrono::minutes(1);

  struct Environment {
    platform::RunLoop& runLoop;
    EvaluationTimers& timers;
    const ORBSigningValidator& validator;
    std::string bundlePath;
    // Called once, when the bundle has been found intact.
    std::function<void()> onIntact;
    std::function<void(std::string_view error, std::string_view description)> announceError;
  };

  explicit OwnIntegrity(Environment environment) : environment_(std::move(environment)) {}
  OwnIntegrity(const OwnIntegrity&) = delete;
  OwnIntegrity& operator=(const OwnIntegrity&) = delete;

  void check();

 private:
  void checkAgainLater(const std::string& reason);

  const Environment environment_;
  // While the bundle can't be checked.
  std::optional<platform::Instant> first_;
  platform::Duration pause_{};
  bool isIdle_ = false;
};
