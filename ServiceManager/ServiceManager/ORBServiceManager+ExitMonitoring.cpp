#include <algorithm>
#include <chrono>
#include <limits>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "ServiceManager/ServiceManager/MonitoringRecord.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "Shared/Categories/NSStringExtensions.h"

using namespace platform;

namespace {

constexpr int kPidPolls = 6;
constexpr Duration kPidPollInterval = std::chrono::seconds(2);

}  // namespace

// The whole reaction to an exit, in an order that others rely on: the health record counts a crash
// before the evaluation may report a start, and the clients hear of the end before the start.
void ORBExitNoteKQueueCallBack(const ExitNoteContext& info, ProcessId process) {
  ORBServiceManager& object = *info.object;
  const std::string& label = info.jobIdentifier;
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("%@ with PID [%d] was terminated", label, process));
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Handling Process terminiation callback");
  if (object.healthInfo()) object.healthInfo()->reportForcedStopForService(label);
  // Its job stays with the job host, which starts it again.
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Removing job: %@", label));
  object.notifyClientsOfService(label, ORBServiceManager::kJobHasEnded,
                                std::numeric_limits<std::int64_t>::min());
  object.trackServiceForRespawn(label, false);
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Respawning job: %@", label));
  object.evaluateSystemConfiguration();
}

bool ORBServiceManager::monitorJobWithIdentifier(Label label, bool /*retryOnFailure*/) {
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
  if (!monitoredProcessesInfo_.contains(*label)) return false;
  if (isServiceBeingTrackedForRespawn(label)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("The job %@ already being monitored", *label));
    return true;
  }
  if (!armExitWatch(std::string(*label), *process)) return true;  // Counts as success on purpose.
  trackServiceForRespawn(label, true);
  notifyClientsOfService(label, kJobRuns, *process);
  return true;
}

// The job host answers a submission when the process has been started, so the first look is enough
// unless a throttle puts the start off. That is what is waited for: a host that can't tell has had
// its time with the first look, and would get it six times over.
std::optional<ProcessId> ORBServiceManager::awaitProcess(std::string_view label) {
  for (int poll = 0; poll < kPidPolls; ++poll) {
    const Value job = copyJobDictionary(label);
    if (isJobUnknown(job)) break;
    const std::int64_t process = job["PID"].integer().value_or(0);
    const bool isProcess = process > 0 && process <= std::numeric_limits<ProcessId>::max();
    if (isProcess) return static_cast<ProcessId>(process);
    platform_.runLoop.sleepFor(kPidPollInterval);
  }
  return std::nullopt;
}

// A process whose stop failed is no longer marked and still watched: a second watch would tell of
// its end twice, and of the next one's, for good.
bool ORBServiceManager::armExitWatch(std::string label, ProcessId process) {
  const bool isArmed = std::ranges::any_of(exitWatches_, [&](const ExitWatch& watch) {
    return watch.label == label && watch.process == process;
  });
  if (isArmed) return true;
  const auto watch = exitWatches_.insert(exitWatches_.end(), {label, process, nullptr});
  auto armed = platform_.exitWatcher.watchExit(
      process, [this, watch, context = ExitNoteContext{this, std::move(label)},
                process](std::optional<ExitStatus>) {
        const ExitNoteContext info = context;  // This callback goes with its watch.
        exitWatches_.erase(watch);
        ORBExitNoteKQueueCallBack(info, process);
      });
  if (!armed) {
    exitWatches_.erase(watch);
    return false;
  }
  watch->handle = std::move(*armed);
  return true;
}
