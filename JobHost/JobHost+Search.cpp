// Finds processes by the marks that they carry, whatever the state file says.

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/JobHost.h"
#include "JobHost/TrustedUsers.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Result;

namespace {

// A removal signals no more processes of strangers. Each costs it a descriptor.
constexpr std::size_t kMaximumStrangers = 256;

bool isRecordedLeader(const Processes::Marked& marked, const Job& job) {
  return marked.process == job.lastStart.process && marked.startTicks == job.lastStart.startTicks;
}

const std::string* userNameOf(const Job& job) { return job.dictionary["UserName"].string(); }

}  // namespace

// A leader that the state file does not know keeps its job from being started twice.
Result<void> JobHost::adoptMarked(const DaemonFolder& daemons) {
  std::map<std::string_view, const std::string*> usersOfDaemons;
  for (const JobDefinition& daemon : daemons.definitions) {
    if (daemon.userName && !removedByClient_.contains(daemon.label))
      usersOfDaemons[daemon.label] = &*daemon.userName;
  }
  TrustedUsers users;
  const auto found = processes_.findMarked([&](const Processes::Marked& marked) {
    const Job* const job = find(marked.label);
    // Descendants in sessions of their own stay with their job.
    if (job && marked.process != marked.leader) return false;
    if (job && job->hasLeader && job->lastStart.process == marked.process) return false;
    const auto daemon = usersOfDaemons.find(marked.label);
    const bool isDaemons = (!job || job->isDefinitionLost) && daemon != usersOfDaemons.end();
    const std::string* const ofJob = job ? userNameOf(*job) : nullptr;
    return users.areMakersOf(marked, isDaemons ? daemon->second : ofJob);
  });
  if (!found) return std::unexpected(found.error());
  // Its process may be one of those that were not adopted.
  if (users.failure()) return std::unexpected(*users.failure());
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
  job.removal->strangersUntil = loop_.now() + kStrangersKillTime;
  searchSoon(job);
}

// A descendant may have changed its user. It is in the job's control group all the same. Without
// one, nothing tells it from a process of a stranger. Strangers can start new processes with this
// mark as fast as they are killed, so only those from before the removal count, for a limited time.
bool JobHost::waitsForStranger(const Processes::Marked& marked, const Job& job) const {
  const bool isTreeKnown =
      job.process ? job.process->hasControlGroup() : processes_.haveControlGroups();
  return !isTreeKnown && marked.startTicks < job.removal->beganAt &&
         loop_.now() < job.removal->strangersUntil;
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
    const auto hasEnded = [](const auto& entry) { return entry.second->hasEnded(); };
    std::erase_if(job.removal->descendants, hasEnded);
    std::erase_if(job.removal->strangers, hasEnded);
    if (loop_.now() >= job.removal->strangersUntil) job.removal->strangers.clear();
    // The end of a leader that is taken over leads to the next search.
    if (job.removal->awaitsAdoption && takeOverLeader(job)) continue;
    labels.push_back(label);
  }
  TrustedUsers users;
  std::set<platform::ProcessId> strangers;
  auto found = processes_.findMarked([&](const Processes::Marked& marked) {
    if (!std::ranges::binary_search(labels, marked.label)) return false;
    const Job& job = *find(marked.label);
    // A leader that could not be watched.
    const bool isUnwatchedLeader = !job.process && isRecordedLeader(marked, job);
    if (job.abandonsGroup() || isUnwatchedLeader) return isUnwatchedLeader;
    // A process that got SIGTERM with its group gets no second one.
    const bool wasSignalled = job.process && marked.group == job.lastStart.process &&
                              marked.startTicks < job.removal->signalledAt;
    if (wasSignalled) return false;
    // If a lookup has failed, the process counts as a stranger's: a removal never waits for the
    // name service.
    if (users.areMakersOf(marked, userNameOf(job))) return true;
    if (!waitsForStranger(marked, job) || strangers.size() >= kMaximumStrangers) return false;
    return strangers.insert(marked.process).second;
  });
  if (!std::exchange(isSearchFailing_, !found) && !found) {
    log(platform::ASL_LEVEL_WARNING, platform::describe(found.error()));
  }
  std::set<std::string_view> labelsWithNew;
  if (found) {
    for (auto& process : *found) {
      Job& job = *find(process->label());
      const platform::ProcessId number = process->identity().process;
      auto& held = strangers.contains(number) ? job.removal->strangers : job.removal->descendants;
      auto& known = held[number];
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
    const bool hasNone = job.removal->descendants.empty() && job.removal->strangers.empty();
    if (found && !mayHaveLeader && hasNone && !hasRemaining(job)) {
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
