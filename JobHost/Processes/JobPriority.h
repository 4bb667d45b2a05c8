#pragma once

#include "JobHost/Definitions/JobDefinition.h"

namespace jobhost {

// How much of the machine a job gets beside others.
struct JobPriority {
  int nice = 0;
  int ioPriority = 0;  // as ioprio_set() takes it, 0 for the default
  int weight = 100;  // of its control group, for processors and disks: the kernel's default is 100
};

// "Nice" comes before "ProcessType". An adaptive job counts as a standard one: nothing here tells
// the host for whom it works.
JobPriority priorityOf(const JobDefinition& job);

}  // namespace jobhost
