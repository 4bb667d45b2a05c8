// Finds processes by the marks that they carry, whatever the state file says.

#include <algorithm>
#include <csignal>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <unistd.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/JobHost.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Result;

bool JobHost::isTrusted(const Processes::Marked& marked, const Job* job) {
  if (marked.user == 0 || marked.user == ::geteuid()) return true;
  const std::string* const name = job ? job->dictionary["UserName"].string() : nullptr;
  if (!name) return false;
  const auto account = lookUpAccount(*name, {});
  return account && account->user == marked.user;
}

// A leader that the state file does not know keeps its job from being started twice.
Result<void> JobHost::adoptMarked() {
  const auto found = processes_.findMarked([this](const Processes::Marked& marked) {
    const Job* const job = find(marked.label);
    if (!isTrusted(marked, job)) return false;
    if (!job) return true;
    const bool isKnown = job->hasLeader && job->lastStart.process == marked.process;
    // Descendants in sessions of their own stay with their job.
    return marked.process == marked.leader ? !isKnown : false;
  });
  if (!found) return std::unexpected(found.error());
  for (const auto& process : *found) {
    if (process->isLeader()) adopt(*process);
  }
  for (const auto& process : *found) {
    const Job* const job = find(process->label());
    const bool isOwned = job && (!process->isLeader() || job->awaitsAdoption() ||
                                 job->lastStart.isSameProcessAs(process->identity()));
    if (!isOwned) killUnowned(*process);
  }
  // As after the end of a leader that this host has seen.
  std::vector<std::string> kept;
  for (const auto& [label, job] : jobs_) {
    const bool hasLeader = job.hasLeader || job.awaitsAdoption();
    if (job.abandonsGroup() && !hasLeader) processes_.abandon(label);
    if (hasLeader || job.removal) kept.push_back(label);
  }
  processes_.discardOthers(kept);
  return {};
}

void JobHost::adopt(const MarkedProcess& leader) {
  Job* job = find(leader.label());
  if (job && job->hasLeader) return;
  if (job && job->awaitsAdoption() && !job->lastStart.isSameProcessAs(leader.identity())) return;
  if (!job) {
    job = &addLostJob(leader.label());
    log(platform::ASL_LEVEL_WARNING,
        fmt::format("job {}: its definition is lost; its process is kept until it ends or another "
                    "definition is submitted",
                    platform::quotedInMessage(job->label())));
  }
  job->lastStart = leader.identity();
  job->starts.last =
      std::min(platform::Instant(platform::Duration(job->lastStart.startedAt)), loop_.now());
  takeOverProcess(*job);
}

Job& JobHost::addLostJob(const std::string& label) {
  JobDefinition definition;
  definition.label = label;
  definition.dictionary = StoredJob::lostDefinition(label);
  Job& job = insertJob(label);
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
  job.removal->beganAt = processes_.ticksNow();
  job.removal->isKilling = true;
  searchSoon(job);
}

// All jobs whose leaders have ended by then share one search. Processes that are started after it
// are found by the next one, so none escapes its SIGTERM.
void JobHost::searchSoon(Job& job) {
  job.removal->isSearching = true;
  if (std::exchange(isSearchDue_, true)) return;
  loop_.post([this, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) search();
  });
}

void JobHost::search() {
  isSearchDue_ = false;
  // Signals it, too.
  const auto takeOverLeader = [this](Job& job) {
    auto watched = processes_.takeOver(job.lastStart, onEndOf(job));
    const bool hasEnded = !watched && watched.error().code == platform::ErrorCode::kNotFound;
    job.removal->awaitsAdoption = !watched && !hasEnded;
    if (!watched) return false;
    job.process = *std::move(watched);
    job.hasLeader = true;
    job.removal->signalledAt = processes_.ticksNow();
    signalGroup(job, job.removal->isKilling ? SIGKILL : SIGTERM);
    return true;
  };
  std::vector<std::string> labels;
  for (auto& [label, job] : jobs_) {
    if (!job.removal || !job.removal->isSearching) continue;
    job.removal->isSearching = false;
    std::erase_if(job.removal->descendants,
                  [](const auto& entry) { return entry.second->hasEnded(); });
    // The end of a leader that is taken over leads to the next search.
    if (job.removal->awaitsAdoption && takeOverLeader(job)) continue;
    labels.push_back(label);
  }
  auto found = processes_.findMarked([&](const Processes::Marked& marked) {
    if (!std::ranges::binary_search(labels, marked.label)) return false;
    const Job& job = *find(marked.label);
    // A descendant may have changed its user. Others can start new processes with this mark as fast
    // as they are killed, and the removal would not end.
    if (marked.startTicks >= job.removal->beganAt && !isTrusted(marked, &job)) return false;
    if (job.abandonsGroup()) {
      // A leader that could not be watched.
      return !job.process && marked.process == job.lastStart.process &&
             marked.startTicks == job.lastStart.startTicks;
    }
    // A process that got SIGTERM with its group gets no second one.
    return !job.process || marked.group != job.lastStart.process ||
           marked.startTicks >= job.removal->signalledAt;
  });
  if (!std::exchange(isSearchFailing_, !found) && !found) {
    log(platform::ASL_LEVEL_WARNING, platform::describe(found.error()));
  }
  std::set<std::string_view> labelsWithNew;
  if (found) {
    for (auto& process : *found) {
      Job& job = *find(process->label());
      auto& known = job.removal->descendants[process->identity().process];
      if (known) continue;
      known = std::move(process);
      const bool isLeader = known->identity().process == job.lastStart.process &&
                            known->identity().startTicks == job.lastStart.startTicks;
      if (isLeader) job.removal->awaitsAdoption = false;
      endDescendant(job, *known, job.removal->isKilling ? SIGKILL : SIGTERM);
      labelsWithNew.insert(job.label());
    }
  }
  for (const std::string& label : labels) {
    Job& job = *find(label);  // Finishing a removal changes no other label's job.
    const bool mayHaveLeader = job.removal->awaitsAdoption;
    if (found && !mayHaveLeader && job.removal->descendants.empty() && !hasRemaining(job)) {
      finishRemoval(job);
      continue;
    }
    pollRemaining(job, !found || labelsWithNew.contains(label));
  }
}

void JobHost::endDescendant(Job& job, MarkedProcess& process, int signal) {
  if (const auto sent = process.signal(signal); !sent) {
    log(platform::ASL_LEVEL_ERR, fmt::format("job {}: {}", platform::quotedInMessage(job.label()),
                                             platform::describe(sent.error())));
  }
}

}  // namespace jobhost
