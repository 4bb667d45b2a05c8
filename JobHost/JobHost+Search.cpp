// Finds processes by the marks that they carry, whatever the state file says.

#include <algorithm>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/JobHost.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

// A leader that the state file does not know keeps its job from being started twice.
void JobHost::adoptMarked() {
  const auto found = processes_.findMarked([this](const Processes::Marked& marked) {
    const Job* const job = find(marked.label);
    if (!job) return true;
    const bool isKnown = job->hasLeader && job->lastStart.process == marked.process;
    // Descendants in sessions of their own stay with their job.
    return marked.process == marked.leader ? !isKnown : false;
  });
  if (!found) {
    log(platform::ASL_LEVEL_ERR, platform::describe(found.error()));
    return;
  }
  for (const auto& process : *found) {
    if (process->isLeader()) adopt(*process);
  }
  for (const auto& process : *found) {
    const Job* const job = find(process->label());
    const bool isOwned = job && (!process->isLeader() || job->lastStart == process->identity());
    if (!isOwned) killUnowned(*process);
  }
  // As after the end of a leader that this host has seen.
  std::vector<std::string> kept;
  for (const auto& [label, job] : jobs_) {
    if (job.abandonsGroup && !job.hasLeader) processes_.abandon(label);
    if (job.hasLeader || job.removal || job.abandonsGroup) kept.push_back(label);
  }
  processes_.discardOthers(kept);
}

void JobHost::adopt(const MarkedProcess& leader) {
  Job* job = find(leader.label());
  if (job && job->hasLeader) return;
  if (!job) {
    job = &addLostJob(leader.label());
    log(platform::ASL_LEVEL_WARNING,
        fmt::format("job {}: its definition is lost; its process is kept until it ends or another "
                    "definition is submitted",
                    platform::quotedInMessage(job->label)));
  }
  job->lastStart = leader.identity();
  job->starts.last =
      std::min(platform::Instant(platform::Duration(job->lastStart.startedAt)), loop_.now());
  if (auto takenOver = takeOverProcess(*job); !takenOver) {
    log(platform::ASL_LEVEL_ERR, platform::describe(takenOver.error()));
  }
}

Job& JobHost::addLostJob(const std::string& label) {
  JobDefinition definition;
  definition.label = label;
  definition.dictionary = StoredJob::lostDefinition(label);
  Job& job = jobs_[label];
  fillIn(job, JobOrigin::kSubmitted, definition);
  job.isDefinitionLost = true;
  histories_.addJob(label, loop_.wallTime());
  return job;
}

void JobHost::killUnowned(MarkedProcess& process) {
  log(platform::ASL_LEVEL_NOTICE,
      fmt::format("job {}: process {} of an earlier host belongs to no job any more, and is killed",
                  platform::quotedInMessage(process.label()), process.identity().process));
  if (process.isLeader()) {
    const auto group = processes_.takeOver(process.identity(), [](Ending) {});
    if (group) static_cast<void>((*group)->signalGroup(SIGKILL));
  }
  const auto sent = process.signal(SIGKILL);
  if (!sent) log(platform::ASL_LEVEL_ERR, platform::describe(sent.error()));
}

// Nobody can say whether another process is wanted, so the client decides as for an unknown job.
void JobHost::forget(Job& job) {
  job.phase = JobPhase::kRemoving;
  job.removal = std::make_unique<Removal>();
  job.removal->isKilling = true;
  awaitRemaining(job);
}

// All jobs whose leaders have ended by then share one search.
void JobHost::searchSoon(Job& job) {
  job.removal->isSearching = true;
  if (std::exchange(isSearchDue_, true)) return;
  loop_.post([this, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) search();
  });
}

void JobHost::search() {
  isSearchDue_ = false;
  std::vector<std::string> labels;
  for (auto& [label, job] : jobs_) {
    if (!job.removal || !job.removal->isSearching) continue;
    job.removal->isSearching = false;
    job.removal->descendants.clear();
    labels.push_back(label);
  }
  auto found = processes_.findMarked([&](const Processes::Marked& marked) {
    if (!std::ranges::binary_search(labels, marked.label)) return false;
    const Job& job = *find(marked.label);
    if (job.abandonsGroup) return false;
    return !job.process || marked.group != job.lastStart.process;
  });
  if (!std::exchange(isSearchFailing_, !found) && !found) {
    log(platform::ASL_LEVEL_WARNING, platform::describe(found.error()));
  }
  if (found) {
    for (auto& process : *found) {
      find(process->label())->removal->descendants.push_back(std::move(process));
    }
  }
  for (const std::string& label : labels) {
    Job& job = *find(label);  // Finishing a removal changes no other label's job.
    if (found && job.removal->descendants.empty() && !hasRemaining(job)) {
      finishRemoval(job);
      continue;
    }
    endDescendants(job, job.removal->isKilling ? SIGKILL : SIGTERM);
    pollRemaining(job);
  }
}

void JobHost::endDescendants(Job& job, int signal) {
  for (const auto& process : job.removal->descendants) {
    if (const auto sent = process->signal(signal); !sent) {
      log(platform::ASL_LEVEL_ERR, fmt::format("job {}: {}", platform::quotedInMessage(job.label),
                                               platform::describe(sent.error())));
    }
  }
}

}  // namespace jobhost
