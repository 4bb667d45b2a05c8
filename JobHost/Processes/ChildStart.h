#pragma once

#include <cstddef>

#include "JobHost/Processes/SpawnedChild.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {

struct StartedChild {
  int process = -1;  // else errno says why there is none
  platform::UniqueFd pidfd;
  bool isInGroup = false;
  // The kernel kills every child that begins in the group. Some do that in a group that was killed
  // before, until it is replaced.
  bool isKilledInGroup = false;
};

// Starts runSpawnedChild() on this stack, in the control group of a descriptor if that is not -1.
// Returns when the child has executed its program or has ended. All signals must be blocked.
//
// The child begins in the group where the system permits that. Else it writes itself into the
// group, which takes milliseconds, because it waits for all processors.
StartedChild startChild(SpawnedChild& child, char* stack, std::size_t stackBytes, int group);

}  // namespace jobhost
