#pragma once

#include <optional>
#include <string>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// What the job host is asked, on its socket below the platform root. Every message is two-way. A
// request that fails is answered by an array (no result is one): the code and the text of an error
// in CFErrorDomainLaunchd.

// The path of the socket of the host of the platform at `root`.
std::string jobHostSocket(const std::string& root);

// A job's dictionary; nil. Answered when the process runs or has failed to start.
inline constexpr char kSubmitJobMessage[] = "submitJob:";

// A label, and whether to answer when the last process has gone instead of at once; nil.
inline constexpr char kRemoveJobMessage[] = "removeJob:wait:";

// A label; the job's dictionary with what is known of its process, nil where there is no such job.
inline constexpr char kCopyJobMessage[] = "copyJob:";

// Of each job only what is known of its process: a dictionary of such dictionaries by label.
inline constexpr char kCopyJobStatesMessage[] = "copyJobStates";

// Whether this caller may change jobs: a boolean.
inline constexpr char kMayChangeJobsMessage[] = "mayChangeJobs";

// What stands in a job's dictionary beside what was submitted.
inline constexpr char kJobProcessKey[] = "PID";
inline constexpr char kJobLastStatusKey[] = "LastExitStatus";
inline constexpr char kJobLastStatusUnknownKey[] = "LastExitStatusUnknown";

Value failureAnswer(const NSError& error);

// The error that an answer is, nothing where it is a result.
std::optional<NSError> failureIn(const Value& answer);

}  // namespace platform
