#include <algorithm>
#include <chrono>
#include <csignal>
#include <utility>

#include <fmt/format.h>

#include "JobHost/JobErrors.h"
#include "JobHost/JobHost.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::ErrorCode;
using platform::Instant;
using platform::Result;

namespace {

// How often to look for a descriptor for a process that could not be taken over.
constexpr platform::Duration kAdoptionInterval = std::chrono::seconds(1);

}  // namespace

Result<void> JobHost::takeOver(const std::vector<StoredJob>& stored,
                               const Labels& removedByClient) {
  removedByClient_ = removedByClient;
  for (const StoredJob& job : stored) takeOverJob(job);
  DaemonFolder daemons = readDaemonFolder(daemonFolder());
  // Without this, running services would be started a second time.
  if (auto adopted = adoptMarked(daemons); !adopted) return adopted;
  forgetMissingFiles(daemons);
  // Write a new file with what was found, so that the next host does not find it a second time.
  if (auto written = state_->compact(snapshot(), removedByClient_); !written) {
    // A full disk is no reason to abandon the jobs or to exit.
    const bool usesOldFile = state_->isWritable();  // The old file holds the same, in more bytes.
    log(usesOldFile ? platform::ASL_LEVEL_WARNING : platform::ASL_LEVEL_ERR,
        fmt::format("{}; {}", platform::describe(written.error()),
                    usesOldFile ? "the file of the host before is used further"
                                : "no job is started until it can be written"));
    // If the repair fails too, each appended record retries it.
    if (auto repaired = state_->repair(); usesOldFile && !repaired) {
      log(platform::ASL_LEVEL_WARNING, platform::describe(repaired.error()));
    }
  }
  // Refresh the definitions before the jobs resume, so that they resume by their present rules.
  std::vector<JobDefinition> unknown = refreshDaemons(std::move(daemons));
  restartOutdatedBus();
  for (const StoredJob& job : stored) {
    if (Job* const known = find(job.label)) resume(*known);
  }
  if (state_->isWritable()) {
    loadDaemons(std::move(unknown));
  } else {
    loadDaemonsWhenWritable();
  }
  return {};
}

void JobHost::takeOverJob(const StoredJob& stored) {
  const bool isLost = stored.dictionary == StoredJob::lostDefinition(stored.label);
  auto definition = parseJobDefinition(stored.dictionary);
  if (!definition && isLost) {
    definition = JobDefinition();
    definition->label = stored.label;
    definition->dictionary = stored.dictionary;
  } else if (!definition) {
    log(platform::ASL_LEVEL_ERR,
        fmt::format("{}; the job of an earlier host is kept, and started no more",
                    platform::describe(definition.error())));
    // Keep the job, so that its process, if it has one, can be listed and removed.
    definition = JobDefinition();
    definition->label = stored.label;
    definition->dictionary = stored.dictionary;
  }
  Job& job = insertJob(stored.label);
  fillIn(job, stored.origin, *definition);
  job.isDefinitionLost = isLost;
  histories_.addJob(job.label(), loop_.wallTime());
  setCost(job, StateFile::costOf(stored.label, stored.submissionBytes));
  job.lastEnd = stored.lastEnd;
  if (stored.isBeingRemoved) job.removal = std::make_unique<Removal>();
  if (!stored.lastStart) return;
  job.lastStart = *stored.lastStart;
  // The clock counts from boot and the record is of this boot. Clamp it nonetheless: clocks are not
  // trusted.
  job.starts.last = std::min(Instant(platform::Duration(stored.lastStart->startedAt)), loop_.now());
  if (stored.runs) takeOverProcess(job);
  // While a job was being removed, its leader may already have ended (and been recorded) although
  // other processes of its group still ran. Look for them.
  const bool mayHaveLeader = job.hasLeader || job.awaitsAdoption();
  if (!mayHaveLeader && (stored.runs || job.removal)) takeOverRemainingProcesses(job);
}

void JobHost::takeOverRemainingProcesses(Job& job) {
  if (job.abandonsGroup()) return;
  job.process = processes_.remainsOf(job.lastStart);
  if (!job.process || job.removal) return;
  log(platform::ASL_LEVEL_NOTICE,
      fmt::format("job {}: what process {} of an earlier host left of its group is killed",
                  platform::quotedInMessage(job.label()), job.lastStart.process));
  // As after any end: the remaining processes belong to no later process of the job.
  signalGroup(job, SIGKILL);
  job.process.reset();
}

void JobHost::takeOverProcess(Job& job) {
  auto watched = processes_.takeOver(job.lastStart, onEndOf(job));
  const std::string what =
      fmt::format("job {}: process {} of an earlier host", platform::quotedInMessage(job.label()),
                  job.lastStart.process);
  if (!watched && watched.error().code != ErrorCode::kNotFound) {
    if (!job.awaitsAdoption()) {
      log(platform::ASL_LEVEL_ERR,
          fmt::format("{} is kept, and taken over when that is possible: {}", what,
                      platform::describe(watched.error())));
    }
    job.phase = JobPhase::kRunning;
    job.timer = loop_.startTimer(kAdoptionInterval, platform::RunLoop::Repeat::kOnce,
                                 [this, &job] { retryAdoption(job); });
    return;
  }
  job.timer.reset();
  if (!watched) {
    job.phase = JobPhase::kIdle;
    job.lastEnd = Ending();
    log(platform::ASL_LEVEL_NOTICE, what + " has ended meanwhile");
    return;
  }
  job.process = *std::move(watched);
  job.hasLeader = true;
  job.phase = JobPhase::kRunning;
  log(platform::ASL_LEVEL_NOTICE, what + " taken over");
  for (const std::string& service : takeOverServices(job, job.machServices)) {
    log(platform::ASL_LEVEL_NOTICE,
        fmt::format("job {}: the socket of {} stays with its process, and is bound anew when that "
                    "has ended",
                    platform::quotedInMessage(job.label()), platform::quotedInMessage(service)));
  }
}

void JobHost::retryAdoption(Job& job) {
  const auto timer = std::move(job.timer);  // The callback is part of it.
  takeOverProcess(job);
  if (job.label() == kNotificationBusLabel) restartOutdatedBus();
  if (job.hasLeader || job.awaitsAdoption()) return;
  takeOverRemainingProcesses(job);
  // As after the end of a leader that this host has seen: its control group may hold more.
  if (!job.removal && job.abandonsGroup()) processes_.abandon(job.label());
  if (!job.removal && !job.abandonsGroup()) processes_.discard(job.label());
  resume(job);
}

void JobHost::resume(Job& job) {
  compactIfWanted();
  if (job.removal) return beginRemoval(job);
  if (job.hasLeader || job.awaitsAdoption()) return;
  if (job.isDefinitionLost) return forget(job);
  if (isStopRequested()) return;
  if (const auto listeners = listenersOf(job); !listeners) {
    log(platform::ASL_LEVEL_ERR, platform::describe(listeners.error()));
  }
  const bool wants = job.lastEnd ? wantsProcessAfter(job.rules, exitStatusOf(*job.lastEnd))
                                 : wantsProcessAtLoad(job.rules);
  const bool mayStart = loop_.now() >= earliestStartOf(job);
  const JobEvent event = job.lastEnd ? JobEvent::kProcessEnded : JobEvent::kSubmitted;
  const auto done = perform(job, nextAction(job.phase, event, wants, mayStart), nullptr);
  if (!done) logFailedStart(job, done.error());
}

std::vector<StoredJob> JobHost::snapshot() const {
  std::vector<StoredJob> jobs;
  for (const auto& [label, job] : jobs_) {
    StoredJob& stored = jobs.emplace_back();
    stored.label = label;
    stored.origin = job.origin;
    stored.dictionary = job.dictionary;
    if (job.lastStart.process != 0) stored.lastStart = job.lastStart;
    stored.runs = job.hasLeader || job.awaitsAdoption();
    stored.lastEnd = job.lastEnd;
    stored.isBeingRemoved = job.removal != nullptr;
  }
  return jobs;
}

void JobHost::compactIfWanted() {
  if (!state_->wantsCompaction()) return;
  if (auto written = state_->compact(snapshot(), removedByClient_); !written) {
    noteUnwritten(written.error());
  } else {
    behindTimer_.reset();
  }
}

void JobHost::noteUnwritten(const platform::Error& error) {
  if (behindTimer_) return;
  log(platform::ASL_LEVEL_ERR,
      fmt::format("{}; the jobs go on, and their state is written when that is possible",
                  platform::describe(error)));
  behindTimer_ = loop_.startTimer(kStateRetryInterval, platform::RunLoop::Repeat::kEvery, [this] {
    if (state_->wantsCompaction() && !state_->compact(snapshot(), removedByClient_)) return;
    const auto timer = std::move(behindTimer_);  // The callback is part of it.
  });
}

}  // namespace jobhost
