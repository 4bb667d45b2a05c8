#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/JobErrors.h"
#include "JobHost/JobHost.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::LaunchdError;

namespace {

// How often to poll a group whose leader has ended. Its last members may be children of any
// process, so no exit is reported.
constexpr platform::Duration kGroupInterval = std::chrono::milliseconds(20);

// The longest time between two searches, each of which reads every process of the system. Each
// search that finds nothing new doubles the time to the next one.
constexpr platform::Duration kMaximumSearchPause = std::chrono::seconds(1);

// How long after SIGKILL a process that stays is reported.
constexpr platform::Duration kKillReportDelay = std::chrono::seconds(5);

// While the host stops, the time-out of a job whose ExitTimeOut is 0: as long as that of a job
// without the key. Without it, one job that does not end would keep the later ones from being
// stopped.
constexpr platform::Duration kDefaultShutDownTimeOut =
    std::chrono::seconds(platform::kDefaultExitTimeOut);

// How long the removal of a job whose ExitTimeOut is 0 waits for processes that another user may
// have started.
constexpr platform::Duration kStrangersTimeOut =
    std::chrono::seconds(platform::kDefaultExitTimeOut);

// Jobs of a lower rank are stopped first.
int stoppingRank(const Job& job) {
  if (job.label() == kNotificationBusLabel) return 2;
  return job.origin == JobOrigin::kLoaded ? 0 : 1;
}

}  // namespace

void JobHost::answer(Completion completion, Outcome outcome) {
  loop_.post([alive = std::weak_ptr(alive_), completion = std::move(completion),
              outcome = std::move(outcome)]() mutable {
    if (!alive.expired()) completion(std::move(outcome));
  });
}

void JobHost::remove(std::string_view label, Completion completion) {
  Job* const job = find(label);
  if (!job) {
    const std::string text =
        fmt::format("no job has the label {}", platform::quotedInMessage(label));
    answer(std::move(completion), std::unexpected(jobError(LaunchdError::kNoSuchJob, text)));
    return;
  }
  if (job->removal && !job->removal->afterwards.empty()) {
    // This request is about the job that the waiting requests will submit.
    job->removal->afterwards.push_back(
        [this, label = std::string(label), completion = std::move(completion)]() mutable {
          remove(label, std::move(completion));
        });
    return;
  }
  if (job->removal) {
    job->removal->completions.push_back(std::move(completion));
    return;
  }
  compactIfWanted();
  // Record the removal first: otherwise the next host takes the job for one that crashed, and
  // restarts it.
  const bool isLoaded = job->origin == JobOrigin::kLoaded;
  const auto written =
      isLoaded ? state_->appendRemovedByClient(job->label()) : state_->appendRemoving(job->label());
  if (!written) noteUnwritten(written.error());
  if (isLoaded) removedByClient_.insert(job->label());
  job->removal = std::make_unique<Removal>();
  job->removal->completions.push_back(std::move(completion));
  beginRemoval(*job);
}

void JobHost::beginRemoval(Job& job) {
  job.removal->beganAt = processes_.ticksNow();
  job.removal->awaitsAdoption = job.awaitsAdoption();
  job.isQueued = false;
  job.timer.reset();
  job.demand.clear();
  job.phase = JobPhase::kRemoving;
  // A job that never had a process has left none.
  if (!job.process && job.lastStart.process == 0) return finishRemoval(job);
  if (job.hasLeader) job.process->reportIfEnded();
  if (job.hasLeader || (job.process && job.process->hasRemainingProcesses())) {
    job.removal->signalledAt = processes_.ticksNow();
    signalGroup(job, SIGTERM);
  }
  armKill(job);
  // Without a leader no exit is reported.
  if (!job.hasLeader && !job.removal->isSearching) searchSoon(job);
}

void JobHost::signalGroup(Job& job, int signal) {
  const auto send = [&] {
    if (job.abandonsGroup()) return job.process->signalLeader(signal);
    return signal == SIGKILL ? job.process->killTree() : job.process->signalGroup(signal);
  };
  if (const auto sent = send(); !sent) {
    log(platform::ASL_LEVEL_ERR, fmt::format("job {}: {}", platform::quotedInMessage(job.label()),
                                             platform::describe(sent.error())));
  }
}

platform::Duration JobHost::exitTimeOutOf(const Job& job) const {
  if (!isShuttingDown_) return job.exitTimeOut;
  if (job.exitTimeOut <= platform::Duration::zero()) return kDefaultShutDownTimeOut;
  return std::min(job.exitTimeOut, kMaximumShutDownTimeOut);
}

void JobHost::armKill(Job& job) {
  const platform::Duration timeOut = exitTimeOutOf(job);
  const bool isKilled = timeOut > platform::Duration::zero();
  job.removal->strangersUntil =
      loop_.now() + (isKilled ? timeOut + kStrangersKillTime : kStrangersTimeOut);
  if (!isKilled) return;
  job.removal->killAt = loop_.now() + timeOut;
  job.removal->killTimer =
      loop_.startTimer(timeOut, platform::RunLoop::Repeat::kOnce, [this, &job] {
        job.removal->isKilling = true;
        // If nothing remains, the next poll finishes the removal.
        if (!job.hasLeader && !hasRemaining(job)) return;
        log(platform::ASL_LEVEL_WARNING,
            fmt::format("job {}: process group {} did not end when asked to, and is killed",
                        platform::quotedInMessage(job.label()), job.lastStart.process));
        const auto timer = std::move(job.removal->killTimer);  // The callback is part of it.
        reportIfKillFails(job);
        for (const auto* found : {&job.removal->descendants, &job.removal->strangers}) {
          for (const auto& [number, process] : *found) endDescendant(job, *process, SIGKILL);
        }
        if (job.process) signalGroup(job, SIGKILL);
      });
}

// A process in an uninterruptible sleep, such as that of a hung file system, ends only afterwards.
void JobHost::reportIfKillFails(Job& job) {
  job.removal->killTimer =
      loop_.startTimer(kKillReportDelay, platform::RunLoop::Repeat::kOnce, [this, &job] {
        log(platform::ASL_LEVEL_ERR,
            fmt::format(
                "job {}: process group {} has not ended {} s after SIGKILL; its removal "
                "waits",
                platform::quotedInMessage(job.label()), job.lastStart.process,
                std::chrono::duration_cast<std::chrono::seconds>(kKillReportDelay).count()));
      });
}

bool JobHost::hasRemaining(const Job& job) const {
  if (!job.abandonsGroup() && job.process && job.process->hasRemainingProcesses()) return true;
  const auto isAlive = [](const auto& entry) { return !entry.second->hasEnded(); };
  if (std::ranges::any_of(job.removal->descendants, isAlive)) return true;
  return loop_.now() < job.removal->strangersUntil &&
         std::ranges::any_of(job.removal->strangers, isAlive);
}

// The leader has ended. A search shows whether there is more than its process group: processes in
// sessions of their own, and those that these have started meanwhile.
void JobHost::pollRemaining(Job& job, bool hasFoundNew) {
  Removal& removal = *job.removal;
  removal.searchPause =
      hasFoundNew ? kGroupInterval
                  : std::clamp(2 * removal.searchPause, kGroupInterval, kMaximumSearchPause);
  const platform::Instant nextSearch = loop_.now() + removal.searchPause;
  job.timer =
      loop_.startTimer(kGroupInterval, platform::RunLoop::Repeat::kEvery, [this, &job, nextSearch] {
        const bool waits = hasRemaining(job) || job.removal->awaitsAdoption;
        if (waits && loop_.now() < nextSearch) return;
        const auto timer = std::move(job.timer);  // The callback is part of it.
        searchSoon(job);
      });
}

void JobHost::finishRemoval(Job& job) {
  compactIfWanted();
  const auto written = state_->appendRemoved(job.label());
  if (!written) noteUnwritten(written.error());
  closeServices(job);
  removeNamesOfServices(job);
  log(platform::ASL_LEVEL_INFO,
      fmt::format("job {}: removed", platform::quotedInMessage(job.label())));
  const std::unique_ptr<Removal> removal = std::move(job.removal);
  setCost(job, 0);
  histories_.removeJob(job.label());
  lastStarts_.keep(job, earliestStartOf(job), loop_.now());
  // Nobody has seen the end of its leader.
  if (job.abandonsGroup() && !job.process) processes_.abandon(job.label());
  processes_.discard(job.label());
  jobs_.erase(job.label());
  for (Completion& completion : removal->completions) answer(std::move(completion), {});
  for (auto& request : removal->afterwards) request();
  // The last job of a rank goes on to the next rank. Each of 10,000 jobs can't go through all jobs.
  if (isShuttingDown_ && stopping_ > 0 && --stopping_ == 0) {
    loop_.post([this, alive = std::weak_ptr(alive_)] {
      if (!alive.expired()) shutDownNext();
    });
  }
}

void JobHost::shutDown(std::move_only_function<void()> completion) {
  isShuttingDown_ = true;
  onShutDown_ = std::move(completion);
  stateTimer_.reset();
  for (auto& [label, job] : jobs_) {
    if (!job.removal) continue;
    const auto killAt = job.removal->killAt;
    if (!killAt || *killAt > loop_.now() + kMaximumShutDownTimeOut) armKill(job);
  }
  shutDownNext();
}

void JobHost::shutDownNext() {
  if (jobs_.empty()) {
    if (!onShutDown_) return;
    // A host that is started after an orderly stop loads all of its daemons.
    removedByClient_.clear();
    if (auto written = state_->compact({}); !written) {
      log(platform::ASL_LEVEL_WARNING, platform::describe(written.error()));
      state_->discard();
    }
    loop_.post([alive = std::weak_ptr(alive_),
                completion = std::exchange(onShutDown_, nullptr)]() mutable {
      if (!alive.expired()) completion();
    });
    return;
  }
  int lowest = stoppingRank(jobs_.begin()->second);
  for (const auto& [label, job] : jobs_) lowest = std::min(lowest, stoppingRank(job));
  std::vector<std::string> next;
  for (const auto& [label, job] : jobs_) {
    if (stoppingRank(job) != lowest) continue;
    ++stopping_;
    if (!job.removal) next.push_back(label);
  }
  for (const std::string& label : next) {
    compactIfWanted();
    Job& job = *find(label);
    if (auto written = state_->appendRemoving(label); !written) noteUnwritten(written.error());
    job.removal = std::make_unique<Removal>();
    beginRemoval(job);
  }
}

}  // namespace jobhost
