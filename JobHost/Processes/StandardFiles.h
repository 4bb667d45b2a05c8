#pragma once

#include <array>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/JobOutput.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The standard input, output and error of a job's process, opened with the permissions of the job's
// user if the host is root. Empty for /dev/null; where that is the output or the error, `output`
// is asked, if there is one.
platform::Result<std::array<platform::UniqueFd, 3>> openStandardFiles(const JobDefinition& job,
                                                                      const JobAccount& account,
                                                                      const JobOutput& output = {});

// Whether the output or the error is a stream to the journal: no other standard file is a socket.
bool hasStreamToJournal(const std::array<platform::UniqueFd, 3>& files);

}  // namespace jobhost
