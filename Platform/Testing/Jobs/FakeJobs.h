#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Testing/Processes/FakeExitWatcher.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// A job host whose processes end when the test says so. It starts them again as the real one does,
// at once or when their throttle allows it, and tells the exit watcher of each. Of a dictionary's
// keys it checks only those that it uses; "KeepAlive" is a boolean to it.
class FakeJobs final : public Jobs {
 public:
  // Both outlive this; no process is left running by the time that the watcher ends.
  FakeJobs(VirtualRunLoop& loop, FakeExitWatcher& exitWatcher)
      : loop_(loop), exitWatcher_(exitWatcher) {}
  FakeJobs(const FakeJobs&) = delete;
  FakeJobs& operator=(const FakeJobs&) = delete;

  // The job's process ends; it must have one.
  void endProcess(std::string_view label, ExitStatus status = {});

  // Programs at `path` can't be started from now on, for this reason; or can, without one.
  void setUnstartable(const std::string& path, std::optional<std::string> reason);

  // The job's processes go on when they get SIGTERM.
  void ignoreTermination(std::string_view label) { job(label).ignoresTermination = true; }

  // Whether the host answers at all. Its jobs go on without it, but are not started again.
  void setReachable(bool reachable);

  // Whether the host takes changes from this caller, and lets it read.
  void setCallerAllowed(bool allowed) { callerAllowed_ = allowed; }

  std::vector<std::string> labels() const;
  std::optional<ProcessId> process(std::string_view label) const;
  // How often a process of the job was started.
  std::size_t starts(std::string_view label) const;

  std::expected<void, NSError> SMJobSubmit(std::string_view domain, const Value& job,
                                           const AuthorizationRef* authorization) override;
  std::expected<void, NSError> SMJobRemove(std::string_view domain, std::string_view label,
                                           const AuthorizationRef* authorization,
                                           bool wait) override;
  Value SMJobCopyDictionary(std::string_view domain, std::string_view label) override;

  // What every call, and whoever else asks the host, does first: waits for a host that is not
  // there, as long as the real client does, and not again before it has been there.
  bool awaitHost();
  void waitAgain() { hasWaitedInVain_ = false; }
  bool isCallerAllowed() const { return callerAllowed_; }

 private:
  struct Job {
    Value dictionary;
    std::optional<ProcessId> process;
    std::optional<int> lastExitStatus;  // as wait() gives it
    Instant lastStart{};
    std::size_t starts = 0;
    bool ignoresTermination = false;
    bool removing = false;
  };

  Job& job(std::string_view label);
  const Job* find(std::string_view label) const;
  std::expected<void, NSError> admit(std::string_view domain);
  std::expected<void, NSError> start(const std::string& label, Job& job);
  Instant earliestStart(const Job& job) const;
  void startWhenThrottleAllows(const std::string& label);
  void startAgain(const std::string& label);
  void end(Job& job, ExitStatus status);
  void awaitRemoval(std::string_view label);

  VirtualRunLoop& loop_;
  FakeExitWatcher& exitWatcher_;
  std::map<std::string, Job, std::less<>> jobs_;
  std::map<std::string, std::string> unstartable_;  // why, by path
  bool reachable_ = true;
  bool hasWaitedInVain_ = false;
  bool callerAllowed_ = true;
  ProcessId lastProcess_ = 5000;
};

}  // namespace platform
