#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// The messages that the job host takes on its socket below the platform root. Each is two-way. The
// answer to a failed request is an array (no result is one): the code and the text of an error in
// CFErrorDomainLaunchd.

// The path of the host's socket below the platform root `root`.
std::string jobHostSocket(const std::string& root);

// Argument: a job's dictionary. Answer: nil, when the process runs or has failed to start.
inline constexpr char kSubmitJobMessage[] = "submitJob:";

// Arguments: a label, and whether to answer after the last process has ended instead of at once.
// Answer: nil.
inline constexpr char kRemoveJobMessage[] = "removeJob:wait:";

// Argument: a label. Answer: the job's dictionary with the state of its process (see Jobs.h), nil
// if there is no such job.
inline constexpr char kCopyJobMessage[] = "copyJob:";

// Answer: a dictionary that has for each label a dictionary with only that state, and of its
// "History" only the counts.
inline constexpr char kCopyJobStatesMessage[] = "copyJobStates";

// Argument: a label. Answer: the same for the next labels in their order, kJobStatesInAPage at
// most. Empty if there are none. The first page is the one after the empty label. All jobs do not
// fit into one message if there are many.
inline constexpr char kCopyJobStatesAfterMessage[] = "copyJobStatesAfter:";
inline constexpr std::size_t kJobStatesInAPage = 2000;

// Answer: a dictionary that has for each label of which a process was started since this caller's
// last such request the process's number, and kNoProcess for each that could not be started
// because its program has changed. Answered when there is one. The caller's first request waits for
// the next start, unless jobs wait for a submission because their programs have changed. A later
// request of the same caller ends this one with an empty dictionary.
inline constexpr char kAwaitJobStartsMessage[] = "awaitJobStarts";
inline constexpr std::int64_t kNoProcess = 0;

// Answer: a boolean, whether this caller may change jobs. Also serves as a ping.
inline constexpr char kMayChangeJobsMessage[] = "mayChangeJobs";

Value failureAnswer(const NSError& error);

// The error in an answer, nothing if the answer is a result.
std::optional<NSError> failureIn(const Value& answer);

}  // namespace platform
