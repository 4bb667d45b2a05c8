#pragma once

#include <chrono>
#include <cstddef>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "JobHost/Definitions/DaemonFolder.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Job.h"
#include "JobHost/MachSockets.h"
#include "JobHost/Processes/Processes.h"
#include "JobHost/State/StateFile.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Where a host keeps what it must find again, and its bounds.
struct JobHostOptions {
  std::string root;    // the platform root
  std::string bootId;  // names the boot that goes on
  std::size_t maximumJobs = 4096;
  // Whether somebody has asked for the end while the host is being created, asked again before each
  // job that this would start. Nobody has where there is no such function.
  std::function<bool()> isAskedToEnd = {};
};

// The job that runs the notification bus: everybody may still have something to say while being
// stopped, so it goes last.
inline constexpr char kNotificationBusLabel[] = "com.vantor.notificationbus";

// The most that a job gets to end while the host is stopped, whatever its ExitTimeOut. Three times
// this, for what is stopped one after the other, is less than the service manager gives the host
// before it kills that and leaves the jobs to themselves (TimeoutStopSec in
// vantor-jobhost.service).
inline constexpr platform::Duration kLongestStoppingPatience = std::chrono::seconds(25);

// The jobs by their labels: starts their processes, keeps them alive, reports and removes them. A
// host that is killed leaves them running, and the next one with the same root takes them over.
//
// Everything belongs to the run loop's thread. Starting a process blocks it until the program is
// being executed. Completions run on the loop, once, never from inside the call; those of calls
// that are still open when this is destroyed never run.
class JobHost {
 public:
  // Errors are those of the domain kCFErrorDomainLaunchd; the text names the job and the reason.
  using Outcome = std::expected<void, platform::NSError>;
  using Completion = std::move_only_function<void(Outcome)>;

  // Takes over what the state file knows, then loads Library/LaunchDaemons/*.plist; both lie below
  // the root. Of what an earlier host of this boot has loaded only the definition is replaced, and
  // what a client removed or replaced stays so; a file that has gone takes no job with it. A job
  // that can't be taken over, loaded or started is logged. Where no state file can be written, as
  // on a full disk, no job is taken or loaded until one can; the files are those of that time, and
  // a job that a client has submitted by then stays. Once it is asked to end it starts nothing
  // more: what is still to be loaded is left to the host that comes after shutDown(). Fails where
  // another host runs there (after waiting for it for StateFile::kLockPatience), and where the
  // folders for sockets and state can't be made. The arguments outlive this.
  static platform::Result<std::unique_ptr<JobHost>> create(platform::RunLoop& loop,
                                                           Processes& processes,
                                                           platform::SystemLog& log,
                                                           JobHostOptions options);

  JobHost(const JobHost&) = delete;
  JobHost& operator=(const JobHost&) = delete;

  // Completes when the job's process runs or has failed to start, and at once where nothing wants
  // a process yet or the throttle puts the start off. A new job whose process can't be started is
  // no job; one that was known stays and is tried again. A job that is being removed is submitted
  // when it has gone. Refused once shutDown() was called, and where the system does not know the
  // job's user or group.
  void submit(JobDefinition definition, Completion completion);

  // Ends the job's processes and forgets the job; completes when the last of them has gone. The
  // file that defined it, if one did, is not loaded again in this boot until shutDown().
  void remove(std::string_view label, Completion completion);

  // The job's dictionary as it was submitted, with "PID" while its process runs, and
  // "LastExitStatus", or "LastExitStatusUnknown" (true), after the first end. Never older than an
  // exit that has happened. Nil where there is no such job.
  platform::Value copy(std::string_view label);

  // Every job's label, sorted.
  std::vector<std::string> labels() const;

  // Takes no more submissions and removes everything: the loaded jobs first, then the submitted
  // ones, all at once, the notification bus last. Of each of these nothing lives longer than
  // kLongestStoppingPatience after it was asked to end; what is never to be killed is after 20 s.
  // Completes when no process of them is left. The next host begins as in a new boot.
  void shutDown(std::move_only_function<void()> completion);

 private:
  JobHost(platform::RunLoop& loop, Processes& processes, platform::SystemLog& log,
          JobHostOptions options, MachSockets sockets, std::unique_ptr<StateFile> state);

  // JobHost.cpp
  Job* find(std::string_view label);
  Outcome submitNow(JobOrigin origin, JobDefinition definition);
  platform::Result<void> addJob(JobOrigin origin, const JobDefinition& definition);
  platform::Result<void> replaceDefinition(Job& job, JobOrigin origin,
                                           const JobDefinition& definition);
  platform::Result<void> define(Job& job, JobOrigin origin, const JobDefinition& definition);
  // Writes the definition down; answers what the job then costs. `known` is null for a new one.
  platform::Result<std::size_t> record(const Job* known, JobOrigin origin,
                                       const JobDefinition& definition);
  void setCost(Job& job, std::size_t cost);
  static void fillIn(Job& job, JobOrigin origin, const JobDefinition& definition);
  // Reads the definition anew where it is not at hand.
  platform::Result<void> perform(Job& job, JobAction action, const JobDefinition* definition);
  platform::Result<void> startProcess(Job& job, const JobDefinition& definition);
  Processes::OnEnd onEndOf(Job& job);
  void processEnded(Job& job, Ending ending);
  void waitUntil(Job& job, platform::Instant due);
  void retry(Job& job);
  void failedLater(Job& job, const platform::Error& error);
  void log(platform::AslLevel level, const std::string& text);

  // JobHost+Removal.cpp
  void answer(Completion completion, Outcome outcome);
  void beginRemoval(Job& job);
  void armKill(Job& job);
  platform::Duration patienceWith(const Job& job) const;
  void awaitGroup(Job& job);
  void finishRemoval(Job& job);
  void shutDownNext();

  // JobHost+TakeOver.cpp
  platform::Result<void> takeOver(const std::vector<StoredJob>& stored, const Labels& dismissed);
  platform::Result<void> takeOverJob(const StoredJob& stored);
  platform::Result<void> takeOverProcess(Job& job);
  void takeOverSurvivors(Job& job);
  void resume(Job& job);
  std::vector<StoredJob> snapshot() const;
  // Not between a mark of the state file and what may cut it back to that.
  void compactIfWanted();

  // JobHost+Daemons.cpp
  std::string daemonFolder() const;
  void skip(const JobDefinition& definition, std::string_view why);
  void forgetDismissals(const DaemonFolder& folder);
  // Answers what the last host had not loaded.
  std::vector<JobDefinition> refreshDaemons(DaemonFolder folder);
  platform::Result<void> refresh(Job& job, const JobDefinition& definition);
  bool isAskedToEnd() const { return options_.isAskedToEnd && options_.isAskedToEnd(); }
  void loadDaemons(std::vector<JobDefinition> definitions);
  void loadDaemonsWhenWritable();
  void load(JobDefinition definition);

  platform::RunLoop& loop_;
  Processes& processes_;
  platform::SystemLog& log_;
  const JobHostOptions options_;
  MachSockets sockets_;
  std::unique_ptr<StateFile> state_;
  // By label. Their places don't change: callbacks know them.
  std::map<std::string, Job, std::less<>> jobs_;
  std::size_t totalCost_ = 0;  // of all jobs
  Labels dismissed_;
  std::unique_ptr<platform::RunLoopHandle> stateTimer_;  // while there is no state file
  std::move_only_function<void()> onShutDown_;
  bool isShuttingDown_ = false;
  // Whoever answers looks whether this still lives.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace jobhost
