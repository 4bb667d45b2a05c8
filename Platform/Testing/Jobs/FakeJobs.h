#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/JobStartObservers.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Processes/RestartPolicy.h"
#include "Platform/Testing/Processes/FakeExitWatcher.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Values/VerifiedFile.h"

namespace platform {

// A job host whose processes end when the test says so. Like the real one it restarts them, at once
// or after their throttle, and reports each to the exit watcher. It checks only those keys of a
// dictionary that it uses; "KeepAlive" must be a boolean.
class FakeJobs final : public Jobs {
 public:
  // Both outlive this. All processes have ended when the watcher is destroyed.
  FakeJobs(VirtualRunLoop& loop, FakeExitWatcher& exitWatcher)
      : loop_(loop), exitWatcher_(exitWatcher) {}
  FakeJobs(const FakeJobs&) = delete;
  FakeJobs& operator=(const FakeJobs&) = delete;

  // Ends the job's process; it must have one.
  void endProcess(std::string_view label, ExitStatus status = {});

  // From now on programs at `path` can't be started for this reason, or can again without a reason.
  void setUnstartable(const std::string& path, std::optional<std::string> reason);

  // The file that is at `path` now. Jobs whose dictionary has another one are not started.
  void setFile(const std::string& path, const VerifiedFile& file) { files_[path] = file; }

  // The number of the next process.
  void setNextProcess(ProcessId process) { lastProcess_ = process - 1; }

  // The job's processes ignore SIGTERM.
  void ignoreTermination(std::string_view label) { job(label).ignoresTermination = true; }

  // The host removes no job of this label from now on, for this reason.
  void refuseRemoval(std::string_view label, std::string reason) {
    irremovable_.insert_or_assign(std::string(label), std::move(reason));
  }

  // Called once, after the next submission, or copy, has been made and before it is answered.
  void setOnSubmitted(std::function<void()> call) { onSubmitted_ = std::move(call); }
  void setOnCopied(std::function<void()> call) { onCopied_ = std::move(call); }

  // The answer to the next submission, which is made, is lost.
  void loseNextAnswer() { losesAnswer_ = true; }

  // Whether the host answers. Without it its jobs continue, but are not restarted. The starts at
  // the beginning of the next host are not reported to observers, and the next host begins to count
  // at 0.
  void setReachable(bool reachable);

  // The host takes the requests of the calls that do not block, and answers none before it goes on.
  // Such a request fails half a minute later. The other calls must not be used meanwhile.
  void setHung(bool hung);

  // Whether the host has no room for further jobs.
  void setFull(bool full) { isFull_ = full; }

  // Whether the host accepts changes from this caller and lets it read.
  void setCallerAllowed(bool allowed) { callerAllowed_ = allowed; }

  std::vector<std::string> labels() const;
  std::optional<ProcessId> process(std::string_view label) const;
  // The number of starts of the job.
  std::size_t starts(std::string_view label) const;
  // How often any job was copied, also in vain.
  int copies() const { return copies_; }

  std::expected<void, NSError> SMJobSubmit(std::string_view domain, const Value& job,
                                           const AuthorizationRef* authorization) override;
  std::expected<void, NSError> SMJobRemove(std::string_view domain, std::string_view label,
                                           const AuthorizationRef* authorization,
                                           bool wait) override;
  Value SMJobCopyDictionary(std::string_view domain, std::string_view label) override;
  void submitJob(std::string_view domain, const Value& job, const AuthorizationRef* authorization,
                 Submitted submitted) override;
  void copyJob(std::string_view domain, std::string_view label, Copied copied) override;
  // A page has two jobs.
  void copyStatesAfter(std::string_view label, Copied copied) override;
  void removeJob(std::string_view domain, std::string_view label,
                 const AuthorizationRef* authorization, Removed removed) override;
  std::unique_ptr<RunLoopHandle> observeStarts(StartObserver observer) override;

  // The beginning of every call: waits for an absent host as long as the real client does, and then
  // not again before the host has been there.
  bool awaitHost();
  void waitAgain() { isKnownAbsent_ = false; }
  bool isCallerAllowed() const { return callerAllowed_; }

 private:
  // The time for which a client waits for an answer, and for an absent host, and the interval of
  // its retries.
  static constexpr Duration kAnswerTimeOut = std::chrono::seconds(30);
  static constexpr Duration kRestartTimeOut = std::chrono::seconds(5);
  static constexpr Duration kRetryInterval = std::chrono::milliseconds(50);

  struct LastStarts {
    RecentStarts starts;
    Instant until{};  // they count for the next job of the label
  };

  struct Job {
    Value dictionary;
    std::optional<ProcessId> process;
    std::optional<int> lastExitStatus;  // in the format of wait()
    RestartRules rules;
    RecentStarts recent;
    std::size_t starts = 0;
    bool ignoresTermination = false;
    bool removing = false;
    bool waitsForSubmission = false;  // because its program has changed
    JobHistory* history = nullptr;    // never null
  };

  // A call that does not block, until it is answered.
  struct Request {
    Instant giveUpAt;
    std::function<bool()> serve;  // by the host; whether the request is answered
    std::function<void(NSError)> fail;
  };

  std::expected<void, NSError> submit(std::string_view domain, const Value& job);
  Value copy(std::string_view domain, std::string_view label);
  static void addState(Dictionary& dictionary, const Job& job, JobHistoryDetail detail);
  Job& add(const std::string& label);
  void forget(const std::string& label);
  Job& job(std::string_view label);
  const Job* find(std::string_view label) const;
  std::expected<void, NSError> admit(std::string_view domain);
  std::expected<void, NSError> start(const std::string& label, Job& job);
  // Fails if it starts a process and that fails.
  std::expected<void, NSError> act(const std::string& label, JobEvent event, bool wantsProcess);
  void startFailed(const std::string& label, Job& job);
  void reportChangedProgram(const std::string& label);
  void reportChangedPrograms();
  bool hasProgramChanged(const Value& dictionary) const;
  void startAt(const std::string& label, Instant due);
  void end(Job& job, ExitStatus status);
  void awaitRemoval(std::string_view label);
  void killLater(const std::string& label, const Job& job);
  void take(Request request);
  void giveUpLater(Request& request);
  void serveRequests();
  template <class Call, class Answer>
  void answerLater(Call call, Answer answer);

  VirtualRunLoop& loop_;
  FakeExitWatcher& exitWatcher_;
  std::map<std::string, Job, std::less<>> jobs_;
  std::map<std::string, LastStarts> lastStarts_;                 // of labels without a job
  std::map<std::string, JobHistory> histories_;                  // also of labels without a job
  std::map<std::string, std::string> unstartable_;               // why, by path
  std::map<std::string, std::string, std::less<>> irremovable_;  // why, by label
  std::list<Request> requests_;
  std::map<std::string, VerifiedFile> files_;  // by path
  bool isServing_ = false;
  std::function<void()> onSubmitted_;
  std::function<void()> onCopied_;
  int copies_ = 0;
  JobStartObservers startObservers_;
  bool reachable_ = true;
  bool isHung_ = false;
  bool isFull_ = false;
  bool losesAnswer_ = false;
  bool isObserved_ = true;  // the observers have reached the present host
  bool isKnownAbsent_ = false;
  bool callerAllowed_ = true;
  ProcessId lastProcess_ = 5000;
};

}  // namespace platform
