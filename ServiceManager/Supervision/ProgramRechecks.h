#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "Platform/RunLoops/RunLoop.h"

// The services whose programs could not be checked, for lack of descriptors for instance. Each is
// checked again after a pause, which grows with every failure, and as soon as the check of another
// program gives a verdict: the shortage may have ended. Belongs to the main thread.
class ProgramRechecks {
 public:
  static constexpr platform::Duration kFirstPause = std::chrono::milliseconds(500);
  static constexpr platform::Duration kLongestPause = std::chrono::seconds(60);

  using Check = std::function<void(const std::string& label)>;

  // `runLoop` outlives this. `check` is called in a later turn of the loop.
  ProgramRechecks(platform::RunLoop& runLoop, Check check)
      : runLoop_(runLoop), check_(std::move(check)) {}

  // The service's program could not be checked.
  void couldNotCheck(const std::string& label);
  // The check of the service's program has given a verdict, or the service has no program.
  void hasChecked(const std::string& label);

  // The job host has refused the program, which was found valid, because it is another file by now,
  // or has accepted it. The pause grows with every refusal in a row. The answer to a submission and
  // the notice of the same refusal count once.
  void wasRefused(const std::string& label);
  void wasAccepted(const std::string& label) { refusals_.erase(label); }

  // The service is stopped, so its program need not be checked.
  void forget(const std::string& label);

  // The services that wait for another check.
  std::set<std::string, std::less<>> waiting() const;

 private:
  struct Waiting {
    platform::Duration pause{};
    bool isRefused = false;   // by the job host, so the verdict on another program changes nothing
    bool isCheckDue = false;  // the timer runs
    std::unique_ptr<platform::RunLoopHandle> timer;
  };
  void checkAfter(const std::string& label, Waiting& waiting, platform::Duration delay);

  platform::RunLoop& runLoop_;
  const Check check_;
  std::map<std::string, Waiting> waiting_;
  std::map<std::string, platform::Duration> refusals_;  // the last pause
};

// The pause after one more failure.
platform::Duration nextRecheckPause(platform::Duration pause);
