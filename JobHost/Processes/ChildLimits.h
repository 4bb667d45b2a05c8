#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include <sys/resource.h>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/SpawnedChild.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Whether the process begins with the limits of this host. A process of systemd begins with
// systemd's.
enum class LimitsOfHost { kAreInherited, kAreNotInherited };

// The default soft limit of a core dump, where the kernel has this `core_pattern`. A collector
// decides itself what to keep, and keeps nothing if the limit is 0. Without a collector the core
// would lie in the folder of the process.
rlim_t softCoreLimit(std::string_view corePattern);

// The limits to set in a job's process: the job's own, and for the other resources the default soft
// limits within the host's hard ones. Limits that the process inherits are left out. So the soft
// limits that the host was started with reach no job.
platform::Result<std::vector<ChildLimit>> limitsOf(const JobDefinition& job,
                                                   std::uint64_t originalDescriptorLimit,
                                                   LimitsOfHost ofHost);

}  // namespace jobhost
