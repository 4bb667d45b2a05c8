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

ExitMonitor::ExitMonitor(RunLoop& runLoop, ExitWatcher& exitWatcher, LaunchdJobs& jobs,
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
  if (!isNew) return;
  search->second.id = ++lastSearch_;
  look(service);
}

// An answer that is under way tells of the process, too: the job host answers in order.
void ExitMonitor::lookForProcess(const std::string& label) {
  const auto search = searches_.find(label);
  if (search != searches_.end() && !search->second.isAsking) ask(label, search->second);
}

// The job host answers a submission once the process has been started, so the first look is enough
// unless a throttle delays the start. The search is only for that delay.
//
// Each look is a request to the job host. The answer to the submission before could have held the
// process, but the order and the number of these requests are part of the interface.
void ExitMonitor::look(const std::string& label) {
  Search& search = searches_.at(label);
  search.timer = nullptr;
  ++search.looks;
  if (!search.isAsking) ask(label, search);
}

void ExitMonitor::ask(const std::string& label, Search& search) {
  search.isAsking = true;
  jobs_.copyJob(label, [this, label, id = search.id](const Value& copy) {
    const auto asked = searches_.find(label);
    if (asked == searches_.end() || asked->second.id != id) return;
    asked->second.isAsking = false;
    const JobStatus job = jobStatusIn(copy);
    if (job.process || job.presence == JobStatus::Presence::kUnknown) {
      end(label, job.process);
    } else if (!asked->second.timer) {
      awaitNextLook(label, asked->second);
    }
  });
}

// An end is reported before an answer that is under way, which may still tell of the ended process.
// Watching that one would report its end twice.
void ExitMonitor::askAgain(const std::string& label) {
  const auto search = searches_.find(label);
  if (search == searches_.end() || !search->second.isAsking) return;
  search->second.id = ++lastSearch_;
  ask(label, search->second);
}

void ExitMonitor::awaitNextLook(const std::string& label, Search& search) {
  const bool isLast = search.looks == kPidPolls;
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
    return watch.process == process && watch.label == label;
  });
  if (isArmed) return true;
  const auto watch = exitWatches_.insert(exitWatches_.end(), {label, process, nullptr});
  auto armed = exitWatcher_.watchExit(process, [this, watch](std::optional<ExitStatus>) {
    // Erasing the watch destroys this callback.
    const std::string service = watch->label;
    const Callback& onEnd = events_.onEnd;
    const ProcessId ended = watch->process;
    askAgain(service);
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
