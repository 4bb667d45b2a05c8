#pragma once

#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Jobs/Authorization.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/KnownJobs.h"

// The daemon's only way to launchd: it submits, removes and copies jobs of the system domain with
// the rights that the daemon has acquired. Belongs to the main thread, which never waits for an
// answer: they come later on the loop, within a bounded time, and not after this is destroyed.
// Failures are logged, those of a full job host once.
class LaunchdJobs {
 public:
  // Both outlive this. `onChange` is called when known() has changed; it may be empty.
  LaunchdJobs(platform::Jobs& jobs, platform::Authorization& authorization,
              std::function<void()> onChange = {})
      : jobs_(jobs), authorization_(authorization), onChange_(std::move(onChange)) {}

  // Asks for the right to change the system's jobs. Gets the status of the refusal, or
  // errAuthorizationSuccess, also if no authorization can be created: the job host checks each
  // request itself. The question waits for the job host, so it is asked by `onWorker` on a thread
  // that may wait, and answered by `onMain` on the main thread.
  using Perform = std::function<void(platform::RunLoop::Callback work)>;
  using Acquired = std::move_only_function<void(platform::OSStatus)>;
  void acquireRights(const Perform& onWorker, const Perform& onMain, Acquired acquired);

  // Submits a dictionary, or removes the job that a string names and waits for its end. Any other
  // request fails at once, without an error.
  using Done = std::move_only_function<void(std::expected<void, std::optional<platform::NSError>>)>;
  void submitJobRequest(const platform::Value& request, std::string_view forDomain, Done done);
  // Removes the job. `done` is called when its processes have ended, or with the error.
  using Removed = std::move_only_function<void(std::expected<void, platform::NSError>)>;
  void unloadJobFromLaunchD(const std::string& label, Removed done);

  // The job's dictionary with the state of its process; see Jobs::SMJobCopyDictionary().
  void copyJob(std::string_view label, platform::Jobs::Copied copied);

  // The last answers of the job host about jobs.
  std::shared_ptr<const KnownJobTable> known() const { return known_.table(); }
  // Asks for the state of this job, or of all jobs, only to know it. While a question about a job,
  // or about all, is under way, further calls are one further question.
  void refresh(const std::string& label);
  void refreshAll();
  // Asks about all jobs again if the host has not answered the last time.
  void completeRefresh();
  // The process of the job has ended.
  void processEnded(const std::string& label, platform::ProcessId process);

 private:
  void update(std::string_view label, const platform::Value& copy);
  void hasChanged(bool isChange) const;
  void refreshAfter(const std::string& label);
  void pageHasCome(const std::string& after, const platform::Value& states);
  void roundHasEnded(bool isComplete);
  void noteSubmission(const platform::Value& request,
                      const std::expected<void, platform::NSError>& outcome);
  void remove(std::string_view domain, const std::string& label,
              const platform::AuthorizationRef* authorization, Removed done);

  platform::Jobs& jobs_;
  platform::Authorization& authorization_;  // the worker's
  const std::function<void()> onChange_;
  std::unique_ptr<platform::AuthorizationRef> authRef_;
  KnownJobs known_;
  std::map<std::string, bool> refreshes_;  // under way; whether another one follows
  bool isRefreshingAll_ = false;
  bool isAnotherRoundDue_ = false;  // after the one that is under way
  bool isRoundMissing_ = false;     // the host has not answered the last one
  bool isHostFull_ = false;  // it has refused a job for want of room, and has accepted none since
  // Answers that come after the end of this object are dropped.
  const std::shared_ptr<int> isAlive_ = std::make_shared<int>();
};
