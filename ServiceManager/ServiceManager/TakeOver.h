#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include "Platform/Values/Time.h"
#include "ServiceManager/ServiceManager/EvaluationTimers.h"
#include "ServiceManager/Supervision/ServiceEnforcement.h"

// The time after the start in which the daemon does not watch every service that runs yet: those
// that an earlier daemon has left behind, and those that it starts itself. It ends when all
// services have been evaluated and nothing goes on with any, or after kTakeOverTime. Belongs to the
// main thread.
class TakeOver {
 public:
  static constexpr platform::Duration kTakeOverTime = std::chrono::seconds(15);

  struct Environment {
    EvaluationTimers& timers;
    ServiceEnforcement& enforcement;
    // Whether a service waits for its turn or for the answer of a settings server.
    std::function<bool()> isDeciding;
    std::function<void()> onEnd;
  };

  explicit TakeOver(Environment environment) : environment_(std::move(environment)) {}
  TakeOver(const TakeOver&) = delete;
  TakeOver& operator=(const TakeOver&) = delete;

  void begin();
  // An evaluation has given a turn to every service.
  void noteEvaluation() { hasEvaluated_ = true; }
  // To be called when all turns are over, and when settings servers have answered.
  void continueIfQuiet();

  bool goesOn() const { return state_ == State::kGoesOn; }
  // Calls `ready` at the end of the take-over, at once if it does not go on.
  void whenReady(ServiceEnforcement::CompletionBlock ready);

 private:
  enum class State { kNone, kGoesOn, kHasEnded };

  void end();

  const Environment environment_;
  State state_ = State::kNone;
  bool hasEvaluated_ = false;
  bool isObserved_ = false;  // continueIfQuiet() will be called
  ServiceEnforcement::CompletionBlock onReady_;
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
};
