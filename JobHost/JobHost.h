#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "JobHost/Definitions/DaemonFolder.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Job.h"
#include "JobHost/JobHistories.h"
#include "JobHost/LastStarts.h"
#include "JobHost/MachSockets.h"
#include "JobHost/Processes/Processes.h"
#include "JobHost/State/StateFile.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Logging/LogFields.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

using platform::JobAction;
using platform::JobEvent;
using platform::JobPhase;
using platform::kGoodRun;

// The jobs that a host takes. Each that runs costs it one descriptor and about 2 KiB.
inline constexpr std::size_t kMaximumJobs = 16'384;

// So many crashes in a row, each so soon after its start, are a crash loop. The log says so once.
inline constexpr unsigned kCrashLoop = 3;
inline constexpr platform::Duration kCrashLoopRun = std::chrono::seconds(10);

// Where a host keeps its files, and its bounds.
struct JobHostOptions {
  std::string root;    // the platform root
  std::string bootId;  // as readBootId() returns it
  std::size_t maximumJobs = kMaximumJobs;
  // The users who may connect to the Mach services of jobs: only the host's own and root, unless
  // this says more.
  MachSockets::AudienceOf audienceOfService = [](std::string_view) {
    return platform::PeerAudience();
  };
  // Whether a notification bus that is taken over has read another configuration, so that it may
  // admit other users. It is restarted.
  bool isBusOutdated = false;
  // Called after that bus has been signalled, or if none runs. Until then the next host must know
  // that the bus is outdated. May be empty.
  std::function<void()> onBusRestarted = {};
  // Whether a stop was requested while the host is being created. Called before each job that
  // create() would start. May be empty.
  std::function<bool()> isStopRequested = {};
};

// The job that runs the notification bus. It is stopped last, because other jobs may post while
// they stop.
inline constexpr char kNotificationBusLabel[] = "com.vantor.notificationbus";

// The longest time that a job gets to end while the host stops, whatever its ExitTimeOut. Jobs are
// stopped in three groups, one after the other. Three times this is less than TimeoutStopSec in
// vantor-jobhost.service, after which the service manager kills the host and leaves the jobs
// running.
inline constexpr platform::Duration kMaximumShutDownTimeOut = std::chrono::seconds(25);

// How often a host whose state file is missing or behind tries to write it.
inline constexpr platform::Duration kStateRetryInterval = std::chrono::seconds(10);

// The jobs by label: starts their processes, keeps them alive, reports and removes them. If the
// host is killed, the jobs go on, and the next host with the same root takes them over.
//
// Everything belongs to the run loop's thread. Starting a process blocks it until the program is
// executed. The end of a process is only noted; processes that are due are started one in a turn of
// the loop, so that requests and signals have their turns however many jobs end at once.
// Completions run on the loop, once, never from inside the call. The completions of calls that are
// still open when this is destroyed never run.
class JobHost {
 public:
  // Errors are those of the domain kCFErrorDomainLaunchd; the text names the job and the reason.
  using Outcome = std::expected<void, platform::NSError>;
  using Completion = std::move_only_function<void(Outcome)>;

  // Takes over the jobs in the state file, then loads Library/LaunchDaemons/*.plist. Both lie below
  // the root. If an earlier host of this boot has loaded a file, only the job's definition is
  // replaced. A job that a client removed or replaced stays so, and a missing file removes no job.
  // A job that can't be taken over, loaded or started is logged.
  //
  // If no state file can be written, as on a full disk, no job is taken or loaded until one can
  // be. Then the files of that time are loaded, and a job that a client has submitted by then
  // stays. After a stop request it starts nothing more, and the host after shutDown() loads the
  // rest.
  //
  // Fails if another host runs there (after waiting for it for StateFile::kLockTimeOut), if the
  // folders for sockets and state can't be made, and if there are no descriptors to find out what
  // runs. The arguments outlive this.
  static platform::Result<std::unique_ptr<JobHost>> create(platform::RunLoop& loop,
                                                           Processes& processes,
                                                           platform::SystemLog& log,
                                                           JobHostOptions options);

  JobHost(const JobHost&) = delete;
  JobHost& operator=(const JobHost&) = delete;

  // Completes when the job's process runs or has failed to start. Completes at once if no process
  // is wanted yet or the throttle delays the start. If the first start of a new job fails, there is
  // no job. A known job stays and is retried. If the label is being removed, the job is submitted
  // after the removal. Rejected after shutDown(), and if the system does not know the job's user or
  // group.
  void submit(JobDefinition definition, Completion completion);

  // Ends the job's processes and forgets the job. Completes when the last of them has ended. If a
  // file defined the job, it is not loaded again in this boot until shutDown().
  void remove(std::string_view label, Completion completion);

  // The job's dictionary as it was submitted, with "PID" while its process runs, and with
  // "LastExitStatus" or "LastExitStatusUnknown" (true) after the first end. Never older than an
  // exit that has happened. A process that is due is started first, ahead of its turn. With the
  // label's "History" since this host was started. Nil if there is no such job.
  platform::Value copy(std::string_view label);

  // The same with only the keys that say how the job is, and of its "History" only the counts.
  // Starts nothing.
  platform::Value copyState(std::string_view label);

  // Called after a process of a job has been started, from inside the call that started it. It may
  // not call this.
  using StartHandler = std::function<void(const std::string& label, platform::ProcessId process)>;
  void setStartHandler(StartHandler handler) { onStarted_ = std::move(handler); }

  // Called after a process of a known job could not be started because the program is not the
  // verified file any more. It may not call this.
  using ChangeHandler = std::function<void(const std::string& label)>;
  void setChangeHandler(ChangeHandler handler) { onProgramChanged_ = std::move(handler); }
  // The labels of the jobs that wait for a submission for this reason.
  std::vector<std::string> labelsOfChangedPrograms() const;

  // Every job's label, sorted.
  std::vector<std::string> labels() const { return labelsAfter({}, jobs_.size()); }
  // The first `most` of the labels that come after this one.
  std::vector<std::string> labelsAfter(std::string_view after, std::size_t most) const;

  // Rejects further submissions and removes everything: first the loaded jobs, then the submitted
  // ones, all at once, then the notification bus. No process lives longer than
  // kMaximumShutDownTimeOut after its SIGTERM. A job with an ExitTimeOut of 0 is killed after 20 s.
  // Completes when no process of a job is left. The next host begins as in a new boot.
  void shutDown(std::move_only_function<void()> completion);

 private:
  JobHost(platform::RunLoop& loop, Processes& processes, platform::SystemLog& log,
          JobHostOptions options, MachSockets sockets, std::unique_ptr<StateFile> state);

  // JobHost.cpp
  Job* find(std::string_view label);
  // The same after an end that has happened has been noted.
  Job* findAsOfNow(std::string_view label);
  platform::Dictionary stateOf(const Job& job, platform::JobHistoryDetail detail) const;
  Outcome submitNow(JobOrigin origin, JobDefinition definition);
  platform::Result<void> addJob(JobOrigin origin, const JobDefinition& definition);
  platform::Result<void> replaceDefinition(Job& job, JobOrigin origin,
                                           const JobDefinition& definition);
  platform::Result<void> define(Job& job, JobOrigin origin, const JobDefinition& definition);
  Job& insertJob(const std::string& label);
  // Records the definition in the state file and returns the job's cost. `known` is null for a new
  // job.
  platform::Result<std::size_t> record(const Job* known, JobOrigin origin,
                                       const JobDefinition& definition);
  // Once for each definition of a job.
  void logRemarks(const JobDefinition& definition);
  void setCost(Job& job, std::size_t cost);
  static void fillIn(Job& job, JobOrigin origin, const JobDefinition& definition);
  void log(platform::AslLevel level, const std::string& text, platform::LogFields fields = {},
           const std::source_location& where = std::source_location::current());

  // JobHost+Starts.cpp
  // Parses the dictionary if `definition` is null.
  platform::Result<void> perform(Job& job, JobAction action, const JobDefinition* definition);
  platform::Result<void> startProcess(Job& job, const JobDefinition& definition);
  Processes::OnEnd onEndOf(Job& job);
  void processEnded(Job& job, Ending ending);
  // Counts and logs the end, and the beginning of a crash loop.
  void recordEnd(Job& job, Ending ending, platform::Duration ran);
  platform::Instant earliestStartOf(const Job& job) const;
  void enqueueStart(Job& job);
  void postNextStart();
  void startNext();
  void startIfQueued(Job& job);
  void waitUntil(Job& job, platform::Instant due);
  // A start of a known job has failed. If its program has changed, another start would fail as
  // well: a client must verify it and submit the job again. Until then the job is idle.
  void startFailed(Job& job, const platform::Error& error);
  void logFailedStart(Job& job, const platform::Error& error);

  // JobHost+Demand.cpp
  platform::Result<std::vector<platform::Descriptor>> listenersOf(const Job& job);
  platform::Result<void> bindServices(const Job& job, const JobDefinition& definition);
  std::vector<std::string> takeOverServices(const Job& job,
                                            const std::vector<std::string>& services);
  void closeServices(Job& job, const std::vector<std::string>& kept = {});
  void removeNamesOfServices(const Job& job);
  void awaitDemand(Job& job);
  void demanded(Job& job);
  bool isStillWanted(const Job& job) const;

  // JobHost+Removal.cpp
  void answer(Completion completion, Outcome outcome);
  void beginRemoval(Job& job);
  // Logs what the system refuses.
  void signalGroup(Job& job, int signal);
  void armKill(Job& job);
  void reportIfKillFails(Job& job);
  platform::Duration exitTimeOutOf(const Job& job) const;
  void pollRemaining(Job& job, bool hasFoundNew);
  bool hasRemaining(const Job& job) const;
  void finishRemoval(Job& job);
  void shutDownNext();

  // JobHost+Search.cpp
  // `daemons` tells the users of daemons whose definitions are lost.
  platform::Result<void> adoptMarked(const DaemonFolder& daemons);
  // Whether a removal ends a process with a mark that may be forged, and waits for it.
  bool waitsForStranger(const Processes::Marked& marked, const Job& job) const;
  void adopt(const MarkedProcess& leader);
  Job& addLostJob(const std::string& label);
  void killUnowned(MarkedProcess& process);
  void forget(Job& job);
  void searchSoon(Job& job);
  void search();
  void endDescendant(Job& job, MarkedProcess& process, int signal);

  // JobHost+TakeOver.cpp
  platform::Result<void> takeOver(const std::vector<StoredJob>& stored,
                                  const Labels& removedByClient);
  void takeOverJob(const StoredJob& stored);
  void takeOverProcess(Job& job);
  // The process may live, and there was no descriptor to watch it. Nothing is started or killed in
  // its place before that is known.
  void retryAdoption(Job& job);
  void takeOverRemainingProcesses(Job& job);
  void resume(Job& job);
  std::vector<StoredJob> snapshot() const;
  // Must not run between StateFile::mark() and cutBackTo().
  void compactIfWanted();
  // Says once that the state file is behind, and writes it again when that is possible.
  void noteUnwritten(const platform::Error& error);

  // JobHost+Daemons.cpp
  std::string daemonFolder() const;
  void skip(const JobDefinition& definition, std::string_view why);
  void forgetMissingFiles(const DaemonFolder& folder);
  // Returns the definitions that the last host had not loaded.
  std::vector<JobDefinition> refreshDaemons(DaemonFolder folder);
  platform::Result<void> refresh(Job& job, const JobDefinition& definition);
  bool isStopRequested() const { return options_.isStopRequested && options_.isStopRequested(); }
  void loadDaemons(std::vector<JobDefinition> definitions);
  void loadDaemonsWhenWritable();
  void load(JobDefinition definition);
  // If it was taken over, and has read another configuration. Again after its adoption, if that
  // had to wait.
  void restartOutdatedBus();

  platform::RunLoop& loop_;
  Processes& processes_;
  platform::SystemLog& log_;
  const JobHostOptions options_;
  MachSockets sockets_;
  std::unique_ptr<StateFile> state_;
  // By label. Callbacks hold references to the jobs, which a map does not move.
  std::map<std::string, Job, std::less<>> jobs_;
  std::size_t totalCost_ = 0;  // of all jobs
  Labels removedByClient_;
  std::unique_ptr<platform::RunLoopHandle> stateTimer_;   // while there is no state file
  std::unique_ptr<platform::RunLoopHandle> behindTimer_;  // while the state file is behind
  bool isSearchDue_ = false;
  bool isSearchFailing_ = false;
  JobHistories histories_;
  LastStarts lastStarts_;
  // The labels of jobs whose process is due, in the order in which they fell due. A job that no
  // longer waits is skipped.
  std::deque<std::string> startQueue_;
  StartHandler onStarted_;
  ChangeHandler onProgramChanged_;
  std::move_only_function<void()> onShutDown_;
  bool isShuttingDown_ = false;
  std::size_t stopping_ = 0;  // jobs that are removed before the shut-down goes on to the next ones
  // Callbacks check by it whether this still exists.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace jobhost
