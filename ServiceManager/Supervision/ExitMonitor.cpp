#include "ServiceManager/Supervision/ExitMonitor.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "Shared/Categories/NSStringExtensions.h"

using namespace platform;

namespace {

constexpr int kPidPolls = 6;
constexpr Duration kPidPollInterval = std::chrono::seconds(2);

}  // namespace

ExitMonitor::ExitMonitor(RunLoop& runLoop, ExitWatcher& exitWatcher, const LaunchdJobs& jobs,
                         MonitoringRecords& records, Events events)
    : runLoop_(runLoop),
      exitWatcher_(exitWatcher),
      jobs_(jobs),
      records_(records),
      events_(std::move(events)) {}

bool ExitMonitor::monitorJobWithIdentifier(Label label, bool /*retryOnFailure*/) {
  if (NSStringExtensions::isNilOrWhiteSpace(label)) {
    vantorlogger2_line(ASL_LEVEL_WARNING, "Cannot monitor a process with invalid job identifier");
    return false;
  }
  const std::optional<ProcessId> process = awaitProcess(*label);
  if (!process) {
    vantorlogger2_line(
        ASL_LEVEL_WARNING,
        stringWithFormat("Could not determine the PID of the requested job label:%@", *label));
    return false;
  }
  if (!records_.contains(*label)) return false;
  if (records_.isServiceBeingTrackedForRespawn(label)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("The job %@ already being monitored", *label));
    return true;
  }
  const std::string service(*label);
  if (!armExitWatch(service, *process)) return true;  // It counts as success on purpose.
  records_.trackServiceForRespawn(service, true);
  events_.onWatch(service, *process);
  return true;
}

// The job host answers a submission once the process has been started, so the first copy is enough
// unless a throttle delays the start. Wait only for that delay: a host that hangs has cost a
// time-out with the first copy, and would cost one with each further copy.
//
// Each copy is a request to the job host. The answer to the submission before could have held the
// process, but the order and the number of these requests are part of the interface.
std::optional<ProcessId> ExitMonitor::awaitProcess(std::string_view label) const {
  for (int poll = 0; poll < kPidPolls; ++poll) {
    const JobStatus job = jobs_.status(label);
    if (job.presence == JobStatus::Presence::kUnknown) break;
    if (job.process) return job.process;
    runLoop_.sleepFor(kPidPollInterval);
  }
  return std::nullopt;
}

// If stopping a process failed, it is no longer marked but still watched. A second watch would
// report its end twice, and the ends of its successors, too.
bool ExitMonitor::armExitWatch(const std::string& label, ProcessId process) {
  const bool isArmed = std::ranges::any_of(exitWatches_, [&](const ExitWatch& watch) {
    return watch.label == label && watch.process == process;
  });
  if (isArmed) return true;
  const auto watch = exitWatches_.insert(exitWatches_.end(), {label, process, nullptr});
  auto armed =
      exitWatcher_.watchExit(process, [this, watch, label, process](std::optional<ExitStatus>) {
        // Copy these: erasing the watch destroys this callback.
        const std::string service = label;
        const Callback& onEnd = events_.onEnd;
        const ProcessId ended = process;
        exitWatches_.erase(watch);
        onEnd(service, ended);
      });
  if (!armed) {
    exitWatches_.erase(watch);
    return false;
  }
  watch->handle = std::move(*armed);
  return true;
}
