#pragma once

#include <functional>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {

// Opens the file for what a job's next process prints where its dictionary names no other file than
// /dev/null. Empty for /dev/null: a job must not depend on its output.
using JobOutput =
    std::function<platform::UniqueFd(const JobDefinition& job, const JobAccount& account)>;

}  // namespace jobhost
