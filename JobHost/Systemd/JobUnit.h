#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Linux/Systemd/UnitProperty.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The transient unit of systemd that a job becomes. Everything here only computes.

// "vantor-LABEL.service", escaped. If the label is too long for a unit's name, its end is replaced
// by a number. Processes that the job abandons have a unit of their own,
// "vantor-LABEL..abandons.service", whose processes are never killed.
std::string unitNameOf(std::string_view label, bool abandonsGroup = false);
bool isAbandoningUnit(std::string_view unit);

// Whether the name is one that unitNameOf() makes.
bool isUnitOfJob(std::string_view unit);

// The slice of all jobs of a platform root: "vantor.slice" for "/", else one below it with the
// host's mark.
std::string sliceOf(const std::string& root, std::uint64_t host);

// Whether a host has made the slice.
bool isSliceOfJobs(std::string_view slice);

// The control group of a slice: "/vantor.slice/vantor-1.slice" for "vantor-1.slice".
std::string groupPathOf(const std::string& slice);

// Whether a process is in a unit of the label, of either kind. `groups` is the content of its
// /proc/PID/cgroup. Only root can put a process there.
bool isInUnitOf(std::string_view groups, const std::string& slice, std::string_view label);

// The facts in a unit's properties besides the job's own dictionary.
struct UnitSurroundings {
  std::string slice;
  std::string starter;         // the path of the program that becomes the job's program
  std::string hostUnit;        // the host's own unit, empty if it is none
  int starterDescriptor = -1;  // the starter's end of its channel
  int outputDescriptor = -1;   // the open standard files, -1 for /dev/null
  int errorDescriptor = -1;
  bool printsToJournal = false;  // instead of /dev/null
};

// The properties for StartTransientUnit. Fails as limitsOf().
platform::Result<std::vector<platform::UnitProperty>> propertiesOf(
    const JobDefinition& job, const JobAccount& account, const UnitSurroundings& surroundings);

// Whether systemd sets the variable. The starter passes the others to the program: those whose name
// systemd does not take, and those that the dynamic linker reads, because the starter of a user
// without rights may have capabilities.
bool isSetBySystemd(std::string_view variable);

// The end that systemd reports: a code of siginfo and its status. Empty for another code.
Ending endingOf(std::int32_t code, std::int32_t status);

// Why the unit did not come to the starter, by the exit status that systemd gives a process whose
// setup failed: "changing to the working directory". Empty for another status.
std::string_view setupStageOf(std::int32_t exitStatus);

}  // namespace jobhost
