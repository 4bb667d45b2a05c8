#include <algorithm>
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

// The number that the first passed descriptor has in a process.
constexpr platform::Descriptor kFirstPassedDescriptor = 3;

}  // namespace

Result<void> JobHost::takeOver(const std::vector<StoredJob>& stored, const Labels& dismissed) {
  dismissed_ = dismissed;
  for (const StoredJob& job : stored) {
    if (auto takenOver = takeOverJob(job); !takenOver) return takenOver;
  }
  DaemonFolder daemons = readDaemonFolder(daemonFolder());
  forgetDismissals(daemons);
  // From here on the new file says what was found, so that nothing is found twice.
  if (auto written = state_->compact(snapshot(), dismissed_); !written) {
    // A full disk is no reason to leave the jobs to themselves, nor to be absent.
    const bool goesOn = state_->isWritable();  // The old file says the same, if at greater length.
    log(goesOn ? platform::ASL_LEVEL_WARNING : platform::ASL_LEVEL_ERR,
        fmt::format("{}; {}", platform::describe(written.error()),
                    goesOn ? "the file of the host before is used further"
                           : "no job is started until it can be written"));
    // Where even that fails, each record that would be appended tries it again.
    if (auto mended = state_->mend(); goesOn && !mended) {
      log(platform::ASL_LEVEL_WARNING, platform::describe(mended.error()));
    }
  }
  // Before the jobs go on: what their rules are now is what they go on by.
  std::vector<JobDefinition> unknown = refreshDaemons(std::move(daemons));
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

Result<void> JobHost::takeOverJob(const StoredJob& stored) {
  auto definition = parseJobDefinition(stored.dictionary);
  if (!definition) {
    log(platform::ASL_LEVEL_ERR,
        fmt::format("{}; the job of an earlier host is kept, and started no more",
                    platform::describe(definition.error())));
    // Its process, if it has one, must still be known, and be there to be removed.
    definition = JobDefinition();
    definition->label = stored.label;
    definition->dictionary = stored.dictionary;
  }
  Job& job = jobs_[stored.label];
  fillIn(job, stored.origin, *definition);
  setCost(job, StateFile::costOf(stored.label, stored.submissionBytes));
  job.lastEnd = stored.lastEnd;
  if (stored.isBeingRemoved) job.removal = std::make_unique<Removal>();
  if (!stored.lastStart) return {};
  job.lastStart = *stored.lastStart;
  // The clock counts from the boot, and the record is of this one; but a clock is not trusted.
  job.lastTry = std::min(Instant(platform::Duration(stored.lastStart->startedAt)), loop_.now());
  if (stored.runs) {
    if (auto takenOver = takeOverProcess(job); !takenOver) return takenOver;
  }
  // Of a removal the end of the leader may be on record and its group still be waited for.
  if (!job.hasLeader && (stored.runs || job.removal)) takeOverSurvivors(job);
  return {};
}

void JobHost::takeOverSurvivors(Job& job) {
  if (!processes_.hasSurvivors(job.lastStart)) return;
  if (job.removal) {
    job.removal->hasSurvivors = true;
    return;
  }
  log(platform::ASL_LEVEL_NOTICE,
      fmt::format("job {}: what process {} of an earlier host left of its group is killed",
                  platform::quotedInMessage(job.label), job.lastStart.process));
  // As after any end: it belongs to no process that the job has from now on.
  processes_.signalGroup(job.lastStart.process, SIGKILL);
}

Result<void> JobHost::takeOverProcess(Job& job) {
  const auto watched = processes_.takeOver(job.lastStart, onEndOf(job));
  const std::string what = fmt::format("job {}: process {} of an earlier host",
                                       platform::quotedInMessage(job.label), job.lastStart.process);
  if (!watched && watched.error().code != ErrorCode::kNotFound) return watched;
  if (!watched) {
    job.lastEnd = Ending();
    log(platform::ASL_LEVEL_NOTICE, what + " has ended meanwhile");
    return {};
  }
  job.hasLeader = true;
  job.phase = JobPhase::kRunning;
  log(platform::ASL_LEVEL_NOTICE, what + " taken over");
  if (!job.machService.empty() &&
      !sockets_.takeOver(
          job.machService, job.label,
          processes_.copyDescriptor(job.lastStart.process, kFirstPassedDescriptor))) {
    log(platform::ASL_LEVEL_NOTICE,
        fmt::format("job {}: the socket of {} stays with its process, and is bound anew when that "
                    "has ended",
                    platform::quotedInMessage(job.label),
                    platform::quotedInMessage(job.machService)));
  }
  return {};
}

void JobHost::resume(Job& job) {
  compactIfWanted();
  if (job.removal) return beginRemoval(job);
  if (job.hasLeader || isAskedToEnd()) return;
  if (!job.machService.empty()) {
    if (const auto socket = sockets_.listen(job.machService, job.label); !socket) {
      log(platform::ASL_LEVEL_ERR, platform::describe(socket.error()));
    }
  }
  const bool wants =
      job.lastEnd ? wantsProcessAfter(job.rules, *job.lastEnd) : wantsProcessAtLoad(job.rules);
  const bool mayStart = loop_.now() >= earliestStart(job.rules, job.lastTry);
  const JobEvent event = job.lastEnd ? JobEvent::kProcessEnded : JobEvent::kSubmitted;
  const auto done = perform(job, nextAction(job.phase, event, wants, mayStart), nullptr);
  if (!done) failedLater(job, done.error());
}

std::vector<StoredJob> JobHost::snapshot() const {
  std::vector<StoredJob> jobs;
  for (const auto& [label, job] : jobs_) {
    StoredJob& stored = jobs.emplace_back();
    stored.label = label;
    stored.origin = job.origin;
    stored.dictionary = job.dictionary;
    if (job.lastStart.process != 0) stored.lastStart = job.lastStart;
    stored.runs = job.hasLeader;
    stored.lastEnd = job.lastEnd;
    stored.isBeingRemoved = job.removal != nullptr;
  }
  return jobs;
}

void JobHost::compactIfWanted() {
  if (!state_->wantsCompaction()) return;
  if (auto written = state_->compact(snapshot(), dismissed_); !written) {
    log(platform::ASL_LEVEL_WARNING, platform::describe(written.error()));
  }
}

}  // namespace jobhost
