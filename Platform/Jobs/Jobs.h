#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Value.h"

namespace platform {

// The system-wide domain of jobs, the only domain here.
inline constexpr char kSMDomainSystemLaunchd[] = "kSMDomainSystemLaunchd";

// The domain of the errors of the calls below, and its codes.
inline constexpr char kCFErrorDomainLaunchd[] = "CFErrorDomainLaunchd";
enum class LaunchdError : int {
  kInternal = 2,       // the program could not be started, or the host failed; see the text
  kNotAuthorized = 4,  // this caller may not change jobs
  kNoSuchJob = 6,      // no job has this label
  kUnavailable = 7,    // the job host can't be reached
  kInvalidJob = 10,    // an impossible dictionary; the text names label and key
  // The program is not the file that the dictionary says was verified. Verify it, and submit again.
  kProgramChanged = 11,
  kHostIsFull = 12,  // the host takes no further job until another one is removed
};

// The seconds that a job gets to end if its dictionary has no "ExitTimeOut".
inline constexpr std::int64_t kDefaultExitTimeOut = 20;

// The rights of a caller (Platform/Jobs/Authorization.h). The job host checks the caller itself, so
// a permitted caller succeeds even without them.
class AuthorizationRef;

// The jobs of this machine: programs that the job host starts, keeps alive and removes for any
// caller. They outlive the caller.
//
// A job's dictionary is launchd's: "Label" and "Program" or "ProgramArguments", and other keys of
// launchd.plist(5). Unknown keys are kept.
//
// Everything belongs to the run loop's thread. The calls with launchd's names block until the host
// has answered, for a limited time. All wait for a restarting host for at most 5 seconds.
class Jobs {
 public:
  virtual ~Jobs() = default;

  // Returns when the process runs or has failed to start, and at once if a throttle delays the
  // start. For an existing label the new dictionary counts from the next start on; a running
  // process is left alone.
  [[nodiscard]] virtual std::expected<void, NSError> SMJobSubmit(
      std::string_view domain, const Value& job, const AuthorizationRef* authorization) = 0;

  // Ends the job's processes and removes the job. With `wait` it returns when the last process has
  // ended: SIGKILL follows SIGTERM after the job's "ExitTimeOut".
  [[nodiscard]] virtual std::expected<void, NSError> SMJobRemove(
      std::string_view domain, std::string_view label, const AuthorizationRef* authorization,
      bool wait) = 0;

  // The submitted dictionary of the job, with "PID" only while its process runs, and with
  // "LastExitStatus" (a wait status) after the first end, or "LastExitStatusUnknown" if nobody can
  // know it, and with the label's "History". It is never older than an exit that anybody could have
  // seen. Nil if there is no job with the label or the domain is another. Empty if the host did not
  // answer (isJobUnknown()), so that a job that may well run does not count as gone.
  [[nodiscard]] virtual Value SMJobCopyDictionary(std::string_view domain,
                                                  std::string_view label) = 0;

  // The same without blocking: the run loop goes on meanwhile. The callback is called once, on the
  // run loop and never from inside a call of this object, and not after this is destroyed. The host
  // gets the requests for one label in the order of the calls, also if it was absent meanwhile.

  using Submitted = std::move_only_function<void(std::expected<void, NSError>)>;
  virtual void submitJob(std::string_view domain, const Value& job,
                         const AuthorizationRef* authorization, Submitted submitted) = 0;

  using Copied = std::move_only_function<void(Value copy)>;
  virtual void copyJob(std::string_view domain, std::string_view label, Copied copied) = 0;

  // The states of the next jobs after `label` in the order of labels, of as many as fit into one
  // answer: by label, a dictionary with those keys of a copy that say how the job is, and of its
  // "History" the counts. Empty if there are no further jobs, nil if the host did not answer.
  virtual void copyStatesAfter(std::string_view label, Copied copied) = 0;

  // With `wait`.
  using Removed = std::move_only_function<void(std::expected<void, NSError>)>;
  virtual void removeJob(std::string_view domain, std::string_view label,
                         const AuthorizationRef* authorization, Removed removed) = 0;

  enum class Start {
    kStarted,
    kProgramChanged,  // not started, because its program is not the verified file any more
  };
  using StartObserver = std::move_only_function<void(std::string_view label, Start start)>;

  // Calls `observer` after the host has started a process of any job, also after a throttle, and
  // after it could not do so because the job's program has changed: on the run loop, never from
  // inside a call of this object, and once for several starts of one job that happen before the
  // loop turns. Destroying the handle ends that. Starts are lost while no host is connected (the
  // observer then waits for the next host by itself) and while this program does not turn for very
  // long, so an observer may only look earlier at what it would look at anyway. A job whose program
  // has changed is reported again with each new connection to a host, until it is submitted.
  [[nodiscard]] virtual std::unique_ptr<RunLoopHandle> observeStarts(StartObserver observer) = 0;
};

// The key of a job whose program was verified: a string, textOfVerifiedFile(). Each process of the
// job executes this very file, unchanged, or is not started.
inline constexpr char kJobVerifiedProgramKey[] = "VerifiedProgram";

// The keys of a copy that say how the job is; the rest is the dictionary as it was submitted.
inline constexpr char kJobProcessKey[] = "PID";
inline constexpr char kJobLastStatusKey[] = "LastExitStatus";
inline constexpr char kJobLastStatusUnknownKey[] = "LastExitStatusUnknown";  // true
// True: the job could not be started, because its program is not the verified file any more. It
// waits for a submission.
inline constexpr char kJobProgramChangedKey[] = "ProgramHasChanged";

// A dictionary with the starts and ends of the label's processes (Platform/Jobs/JobHistory.h), and
// its keys: the date from which the host counts, three numbers, and an array with a dictionary for
// each of the last ends, the oldest first.
inline constexpr char kJobHistoryKey[] = "History";
inline constexpr char kJobSinceKey[] = "Since";
inline constexpr char kJobStartsKey[] = "Starts";
inline constexpr char kJobEndsKey[] = "Ends";
inline constexpr char kJobCrashesKey[] = "Crashes";
inline constexpr char kJobLastEndsKey[] = "LastEnds";
inline constexpr char kJobEndTimeKey[] = "Time";          // a date
inline constexpr char kJobEndStatusKey[] = "WaitStatus";  // absent if nobody can know it
inline constexpr char kJobRunTimeKey[] = "RunTime";       // seconds, a real number

// A dictionary about the processes of the job and what they have started (Platform/Jobs/JobTree.h),
// and its keys. Absent if the job has no process, or the host can't make control groups.
inline constexpr char kJobTreeKey[] = "Tree";
inline constexpr char kJobTreeProcessesKey[] = "Processes";
inline constexpr char kJobTreeCpuTimeKey[] = "CPUTime";  // microseconds
inline constexpr char kJobTreeMemoryKey[] = "Memory";    // bytes; absent if nobody counts them

// How a job is, as a copy of SMJobCopyDictionary() says it.
struct JobStatus {
  enum class Presence {
    kAbsent,   // no job has the label
    kUnknown,  // the host could not tell: the job may well run
    kPresent,
  };
  Presence presence = Presence::kAbsent;
  std::optional<ProcessId> process;  // while it runs; the host writes no number below 1
  Value lastExitStatus;  // a wait status; nil before the first end, and if nobody can know it
};
JobStatus jobStatusIn(const Value& copy);

// Whether the copy means that the host did not answer.
inline bool isJobUnknown(const Value& copy) {
  return copy.dictionary() && copy.dictionary()->empty();
}

}  // namespace platform
