#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// The system-wide domain of jobs, the only one there is here.
inline constexpr char kSMDomainSystemLaunchd[] = "kSMDomainSystemLaunchd";

// The domain of the errors that the calls below hand out, and its codes.
inline constexpr char kCFErrorDomainLaunchd[] = "CFErrorDomainLaunchd";
enum class LaunchdError : int {
  kInternal = 2,       // the job's program could not be started, or the host failed; the text says
  kNotAuthorized = 4,  // this caller may not change jobs
  kNoSuchJob = 6,      // no job has this label
  kUnavailable = 7,    // the job host can't be reached
  kInvalidJob = 10,    // a dictionary that names no possible job; the text names label and key
};

// How long, in seconds, a job is given to end where its dictionary has no "ExitTimeOut".
inline constexpr std::int64_t kDefaultExitTimeOut = 20;

// The rights that a caller holds (Platform/Jobs/Authorization.h). Whoever does the work looks at
// the caller itself, so that a missing one is no hindrance to a caller that may.
class AuthorizationRef;

// The jobs of this machine: programs that the job host starts, keeps alive and removes, whoever
// asked for them. They outlive the caller.
//
// A job's dictionary is launchd's: "Label" and "Program" or "ProgramArguments", and what else
// launchd.plist(5) has; keys that nobody knows are kept.
//
// Each call blocks until the host has answered, at most for a bounded time, and belongs to the run
// loop's thread. A host that is being restarted is waited for, 5 seconds at most.
class Jobs {
 public:
  virtual ~Jobs() = default;

  // Returns when the process runs or has failed to start, and at once where a throttle puts the
  // start off. A label that exists gets the new dictionary for its next start; a process that runs
  // is left alone.
  [[nodiscard]] virtual std::expected<void, NSError> SMJobSubmit(
      std::string_view domain, const Value& job, const AuthorizationRef* authorization) = 0;

  // Ends the job's processes and forgets the job. With `wait` it returns when the last of them has
  // gone: SIGKILL follows SIGTERM after the job's "ExitTimeOut".
  [[nodiscard]] virtual std::expected<void, NSError> SMJobRemove(
      std::string_view domain, std::string_view label, const AuthorizationRef* authorization,
      bool wait) = 0;

  // The job's dictionary as it was submitted, with "PID" only while its process runs and
  // "LastExitStatus" (a wait status) after the first end, or "LastExitStatusUnknown" where nobody
  // can know it. Never older than an exit that anybody could have seen. Nil where no job has the
  // label or the domain is another; an empty dictionary where the host could not tell
  // (isJobUnknown()), so that nobody takes a job that may well run for one that is gone.
  [[nodiscard]] virtual Value SMJobCopyDictionary(std::string_view domain,
                                                  std::string_view label) = 0;
};

// Whether this copy of SMJobCopyDictionary() says only that the host could not tell.
inline bool isJobUnknown(const Value& copy) {
  return copy.dictionary() && copy.dictionary()->empty();
}

}  // namespace platform
