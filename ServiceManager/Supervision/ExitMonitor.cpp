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

void ExitMonitor::monitorJobWithIdentifier(Label label, bool /*retryOnFailure*/, Done done) {
  if (NSStringExtensions::isNilOrWhiteSpace(label)) {
    vantorlogger2_line(ASL_LEVEL_WARNING, "Cannot monitor a process with invalid job identifier");
    done(false);
    return;
  }
  const std::string service(*label);
  const auto [search, isNew] = searches_.try_emplace(service);
  search->second.callers.push_back(std::move(done));
  if (isNew) look(service);
}

void ExitMonitor::lookForProcess(const std::string& label) {
  if (searches_.contains(label)) hasEnded(label);
}

// The job host answers a submission once the process has been started, so the first look is enough
// unless a throttle delays the start. The search is only for that delay: if the host hangs, each
// look costs a time-out.
//
// Each look is a request to the job host. The answer to the submission before could have held the
// process, but the order and the number of these requests are part of the interface.
void ExitMonitor::look(const std::string& label) {
  if (hasEnded(label)) return;
  Search& search = searches_.at(label);
  const bool isLast = ++search.looks == kPidPolls;
  search.timer =
      runLoop_.startTimer(kPidPollInterval, RunLoop::Repeat::kOnce, [this, label = label, isLast] {
        const std::string service = label;  // The search owns this.
        if (isLast) {
          end(service, std::nullopt);
        } else {
          look(service);
        }
      });
}

bool ExitMonitor::hasEnded(const std::string& label) {
  const JobStatus job = jobs_.status(label);
  if (!job.process && job.presence != JobStatus::Presence::kUnknown) return false;
  end(label, job.process);
  return true;
}

void ExitMonitor::end(const std::string& label, std::optional<ProcessId> process) {
  auto search = searches_.extract(label);
  const bool isWatched = watch(label, process);
  for (Done& done : search.mapped().callers) done(isWatched);
}

bool ExitMonitor::watch(const std::string& label, std::optional<ProcessId> process) {
  if (!process) {
    vantorlogger2_line(
        ASL_LEVEL_WARNING,
        stringWithFormat("Could not determine the PID of the requested job label:%@", label));
    return false;
  }
  if (!records_.contains(label)) return false;
  if (records_.isServiceBeingTrackedForRespawn(label)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("The job %@ already being monitored", label));
    return true;
  }
  if (!armExitWatch(label, *process)) return true;  // It counts as success on purpose.
  records_.trackServiceForRespawn(label, true);
  events_.onWatch(label, *process);
  return true;
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
