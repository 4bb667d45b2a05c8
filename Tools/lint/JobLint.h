#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"
#include "Tools/lint/Findings.h"
#include "Tools/lint/Machine.h"
#include "Tools/lint/Node.h"

namespace lint {

// The keys that the job host honours or rejects, for telling a job by its keys.
std::vector<std::string_view> jobKeys();

// Checks a job's dictionary, key by key as the job host reads it, and then as a whole.
void checkJob(const Node& job, const Machine& machine, Findings& findings);

// The same for the keys of a "JobSpec", but for those that the service manager sets itself.
// Returns whether the job host accepts them all.
bool checkJobKeys(const Node& job, const std::vector<std::string_view>& exceptions,
                  Findings& findings);

// The error of a job that the job host refuses, without the beginning that names the job: the file
// and the place name it already.
std::string faultOfJob(const platform::Error& error);

// Checks the program of a job, which `at` names. Returns false if its folder is not on this
// machine.
bool checkProgram(const Node& at, const std::string& path, bool mustBeSigned,
                  const Machine& machine, Findings& findings);

}  // namespace lint
