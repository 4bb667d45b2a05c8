#include "JobHost/Processes/JobPriority.h"

namespace jobhost {
namespace {

constexpr int kBackgroundNice = 10;
constexpr int kBackgroundWeight = 20;
constexpr int kInteractiveWeight = 200;

// The classes of ioprio_set(), which no header of the library has.
constexpr int kClassShift = 13;
constexpr int kBestEffort = 2 << kClassShift;
constexpr int kIdle = 3 << kClassShift;
constexpr int kFirst = 0;
constexpr int kLast = 7;

}  // namespace

JobPriority priorityOf(const JobDefinition& job) {
  JobPriority priority;
  if (job.processType == ProcessType::kBackground) {
    priority = {kBackgroundNice, kBestEffort | kLast, kBackgroundWeight};
    if (job.lowPriorityBackgroundIo) priority.ioPriority = kIdle;
  }
  if (job.processType == ProcessType::kInteractive) {
    priority = {0, kBestEffort | kFirst, kInteractiveWeight};
  }
  if (job.lowPriorityIo && priority.ioPriority != kIdle) priority.ioPriority = kBestEffort | kLast;
  priority.nice = job.nice.value_or(priority.nice);
  return priority;
}

}  // namespace jobhost
