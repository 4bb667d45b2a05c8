#include <algorithm>
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

// How often a group is looked at whose leader has gone: its last members may be anybody's children.
constexpr platform::Duration kGroupInterval = std::chrono::milliseconds(20);

// What a job gets that is never to be killed while the host is stopped: as long as a job that says
// nothing. Otherwise one that does not end would keep all that are stopped after it.
constexpr platform::Duration kStoppingPatience = std::chrono::seconds(20);

// Jobs of a lower rank are stopped first.
int stoppingRank(const Job& job) {
  if (job.label == kNotificationBusLabel) return 2;
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
    // It is meant for the job that is to come.
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
  // Before anything happens: a host that came after us would take the job for one that crashed.
  const bool isLoaded = job->origin == JobOrigin::kLoaded;
  const auto written =
      isLoaded ? state_->appendDismissed(job->label) : state_->appendRemoving(job->label);
  if (!written) {
    answer(std::move(completion), std::unexpected(jobError(written.error())));
    return;
  }
  if (isLoaded) dismissed_.insert(job->label);
  job->removal = std::make_unique<Removal>();
  job->removal->completions.push_back(std::move(completion));
  beginRemoval(*job);
}

void JobHost::beginRemoval(Job& job) {
  job.timer.reset();
  job.phase = JobPhase::kRemoving;
  if (!job.hasLeader && !job.removal->hasSurvivors) return finishRemoval(job);
  if (job.hasLeader) {
    // A process that was taken over is reaped by its parent, and then its number is free for
    // anybody's group: one that has ended is not signalled by its number unheard.
    const std::string label = job.label;
    processes_.reportIfEnded(job.lastStart.process);
    if (!find(label)) return;  // Nothing was left of it.
  }
  processes_.signalGroup(job.lastStart.process, SIGTERM);
  armKill(job);
  // There is nobody whose end would be reported.
  if (!job.hasLeader && !job.timer) awaitGroup(job);
}

platform::Duration JobHost::patienceWith(const Job& job) const {
  if (!isShuttingDown_) return job.exitTimeOut;
  if (job.exitTimeOut <= platform::Duration::zero()) return kStoppingPatience;
  return std::min(job.exitTimeOut, kLongestStoppingPatience);
}

void JobHost::armKill(Job& job) {
  const platform::Duration patience = patienceWith(job);
  if (patience <= platform::Duration::zero()) return;
  job.removal->killAt = loop_.now() + patience;
  job.removal->killTimer =
      loop_.startTimer(patience, platform::RunLoop::Repeat::kOnce, [this, &job] {
        // The number may be another group's since the last look; the next one finds ours gone.
        if (!job.hasLeader && !processes_.hasSurvivors(job.lastStart)) return;
        log(platform::ASL_LEVEL_WARNING,
            fmt::format("job {}: process group {} did not end when asked to, and is killed",
                        platform::quotedInMessage(job.label), job.lastStart.process));
        processes_.signalGroup(job.lastStart.process, SIGKILL);
      });
}

// The leader has been reaped, or may be at any time: the last member's end frees the group's number
// for anybody's.
void JobHost::awaitGroup(Job& job) {
  if (!processes_.hasSurvivors(job.lastStart)) return finishRemoval(job);
  job.timer = loop_.startTimer(kGroupInterval, platform::RunLoop::Repeat::kEvery, [this, &job] {
    if (!processes_.hasSurvivors(job.lastStart)) finishRemoval(job);
  });
}

void JobHost::finishRemoval(Job& job) {
  compactIfWanted();
  if (auto written = state_->appendRemoved(job.label); !written) {
    // The next host finds a removal without a process, and finishes it.
    log(platform::ASL_LEVEL_ERR, platform::describe(written.error()));
  }
  if (!job.machService.empty()) {
    sockets_.close(job.machService, job.label);
    // Where the name is an earlier host's, whose socket went with the process. Of another job's
    // socket that was not taken over either it is still the name.
    const bool isAnothers = std::ranges::any_of(jobs_, [&](const auto& entry) {
      return entry.first != job.label && entry.second.machService == job.machService;
    });
    if (!isAnothers) sockets_.removeName(job.machService);
  }
  log(platform::ASL_LEVEL_INFO,
      fmt::format("job {}: removed", platform::quotedInMessage(job.label)));
  const std::unique_ptr<Removal> removal = std::move(job.removal);
  setCost(job, 0);
  jobs_.erase(job.label);
  for (Completion& completion : removal->completions) answer(std::move(completion), {});
  for (auto& request : removal->afterwards) request();
  if (isShuttingDown_) {
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
    if (!killAt || *killAt > loop_.now() + kLongestStoppingPatience) armKill(job);
  }
  shutDownNext();
}

void JobHost::shutDownNext() {
  if (jobs_.empty()) {
    if (!onShutDown_) return;
    // Whoever starts a host again starts all of its daemons.
    dismissed_.clear();
    if (auto written = state_->compact({}); !written) {
      log(platform::ASL_LEVEL_WARNING, platform::describe(written.error()));
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
    if (stoppingRank(job) == lowest && !job.removal) next.push_back(label);
  }
  for (const std::string& label : next) {
    compactIfWanted();
    Job& job = *find(label);
    if (auto written = state_->appendRemoving(label); !written) {
      log(platform::ASL_LEVEL_ERR, platform::describe(written.error()));
    }
    job.removal = std::make_unique<Removal>();
    beginRemoval(job);
  }
}

}  // namespace jobhost
