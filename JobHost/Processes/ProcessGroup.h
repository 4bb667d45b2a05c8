#pragma once

#include "JobHost/State/StateRecord.h"

namespace jobhost {

// The members of a process's group as the system's list of processes shows them. For a group that
// no pidfd means: of a leader that ended under another host, and on kernels before Linux 6.9.

// Whether any but the leader lives. True if the processes can't be read.
bool groupRemains(const StartFields& leader);

// Signals each member by a handle of its own. Returns 0, ESRCH if there is no member, or the number
// of the last error if it could signal none.
int signalMembers(const StartFields& leader, int signal);

}  // namespace jobhost
