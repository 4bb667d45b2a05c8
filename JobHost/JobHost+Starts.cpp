// The starts and ends of the jobs' processes.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/JobErrors.h"
#include "JobHost/JobHost.h"
#include "Platform/Jobs/JobHistory.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Error;
using platform::Result;

namespace {

std::string describeEnding(const Ending& ending) {
  if (!ending) return "nobody could learn how";
  const platform::ExitStatus& status = ending->status;
  return fmt::format("{} {}{}",
                     status.kind == platform::ExitStatus::Kind::kExited ? "status" : "signal",
                     status.number, ending->hasCore ? ", with a core" : "");
}

}  // namespace

Result<void> JobHost::perform(Job& job, JobAction action, const JobDefinition* definition) {
  switch (action) {
    case JobAction::kNothing:
      return {};
    case JobAction::kBecomeIdle:
      job.isQueued = false;
      job.timer.reset();
      job.phase = JobPhase::kIdle;
      awaitDemand(job);
      return {};
    case JobAction::kWait:
      waitUntil(job, earliestStartOf(job));
      return {};
    case JobAction::kRetry:
      waitUntil(job, earliestRetry(job.rules, job.starts.last.value_or(loop_.now())));
      return {};
    case JobAction::kStart:
      break;
  }
  job.demand.clear();
  job.isQueued = false;
  job.timer.reset();
  job.phase = JobPhase::kIdle;
  if (definition) return startProcess(job, *definition);
  const auto parsed = parseJobDefinition(job.dictionary);
  if (!parsed) return std::unexpected(parsed.error());
  return startProcess(job, *parsed);
}

Result<void> JobHost::startProcess(Job& job, const JobDefinition& definition) {
  const auto lastStart = std::exchange(job.starts.last, loop_.now());
  const auto listeners = listenersOf(job);
  if (!listeners) return std::unexpected(listeners.error());
  auto record =
      state_->makeStartRecord(job.label(), *job.starts.last, definition.abandonsProcessGroup);
  const std::size_t mark = state_->mark();
  int writeError = 0;
  auto process = processes_.start(definition, state_->ticketFor(record, &writeError), *listeners,
                                  onEndOf(job));
  if (!process) {
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
    // Nothing ran, so the throttle does not delay the program that replaces it.
    if (process.error().code == platform::ErrorCode::kChanged) job.starts.last = lastStart;
    return std::unexpected(process.error());
  }
  job.lastStart = state_->countStart(record, writeError);
  if (state_->isBehind()) noteUnwritten(state_->whyBehind());
  job.process = *std::move(process);
  job.hasLeader = true;
  job.isDemanded = false;
  job.phase = JobPhase::kRunning;
  ++histories_.of(job.label()).starts;
  if (onStarted_) onStarted_(job.label(), job.lastStart.process);
  log(platform::ASL_LEVEL_INFO,
      fmt::format("job {}: started process {}", platform::quotedInMessage(job.label()),
                  job.lastStart.process),
      {.messageId = platform::kServiceStartedId,
       .label = job.label(),
       .process = job.lastStart.process});
  return {};
}

Processes::OnEnd JobHost::onEndOf(Job& job) {
  return [this, &job, alive = std::weak_ptr(alive_)](Ending ending) {
    if (!alive.expired()) processEnded(job, ending);
  };
}

void JobHost::processEnded(Job& job, Ending ending) {
  // The remaining processes of the group belong to no later process of the job. Kill them before
  // the end is recorded: the next host looks for the group of a process only if its end is not on
  // record.
  if (job.abandonsGroup()) {
    processes_.abandon(job.label());
  } else if (!job.removal && (ending || job.process->hasRemainingProcesses())) {
    signalGroup(job, SIGKILL);
  }
  compactIfWanted();  // A full file would reject the record of the end.
  job.hasLeader = false;
  job.lastEnd = ending;
  if (auto written = state_->appendEnded(job.label(), ending); !written) {
    noteUnwritten(written.error());
  }
  const platform::Instant now = loop_.now();
  recordEnd(job, ending, now - job.starts.last.value_or(now));
  if (job.removal) return searchSoon(job);
  job.process.reset();
  if (job.isDefinitionLost) return forget(job);
  noteEnd(job.rules, job.starts, now);
  const JobAction action =
      nextAction(JobPhase::kRunning, JobEvent::kProcessEnded,
                 wantsProcessAfter(job.rules, exitStatusOf(ending)), now >= earliestStartOf(job));
  if (action == JobAction::kStart) return enqueueStart(job);
  static_cast<void>(perform(job, action, nullptr));  // Only a start can fail.
}

void JobHost::recordEnd(Job& job, Ending ending, platform::Duration ran) {
  platform::JobHistory& history = histories_.of(job.label());
  const std::int64_t crashes = history.crashes;
  const auto status = ending ? std::optional(waitStatusOf(*ending)) : std::nullopt;
  history.add({loop_.wallTime(), status, ran}, job.removal || isShuttingDown_);
  const bool hasCrashed = history.crashes > crashes;
  const std::string name = platform::quotedInMessage(job.label());
  log(platform::ASL_LEVEL_INFO,
      fmt::format("job {}: process {} ended ({})", name, job.lastStart.process,
                  describeEnding(ending)),
      {.messageId = hasCrashed ? platform::kServiceCrashedId : platform::kServiceEndedId,
       .label = job.label(),
       .process = job.lastStart.process});
  job.shortCrashes = hasCrashed && ran < kCrashLoopRun ? job.shortCrashes + 1 : 0;
  if (job.shortCrashes != kCrashLoop) return;
  log(platform::ASL_LEVEL_WARNING,
      fmt::format("job {}: crash loop, {} crashes in a row within {} s of their start", name,
                  kCrashLoop,
                  std::chrono::duration_cast<std::chrono::seconds>(kCrashLoopRun).count()),
      {.messageId = platform::kCrashLoopId, .label = job.label()});
}

platform::Instant JobHost::earliestStartOf(const Job& job) const {
  return earliestStart(job.rules, job.starts);
}

void JobHost::enqueueStart(Job& job) {
  job.timer.reset();
  job.phase = JobPhase::kWaiting;
  job.isQueued = true;
  startQueue_.push_back(job.label());
  if (startQueue_.size() == 1) postNextStart();
}

void JobHost::postNextStart() {
  loop_.post([this, alive = std::weak_ptr(alive_)] {
    if (!alive.expired()) startNext();
  });
}

void JobHost::startNext() {
  const std::string label = std::move(startQueue_.front());
  startQueue_.pop_front();
  if (!startQueue_.empty()) postNextStart();
  if (Job* const job = find(label)) startIfQueued(*job);
}

void JobHost::startIfQueued(Job& job) {
  if (!std::exchange(job.isQueued, false)) return;
  compactIfWanted();
  const auto done =
      perform(job, nextAction(job.phase, JobEvent::kDue, isStillWanted(job), true), nullptr);
  if (!done) logFailedStart(job, done.error());
}

void JobHost::waitUntil(Job& job, platform::Instant due) {
  job.isQueued = false;
  job.phase = JobPhase::kWaiting;
  const platform::Instant now = loop_.now();
  const platform::Duration delay = due > now ? due - now : platform::Duration::zero();
  job.timer = loop_.startTimer(delay, platform::RunLoop::Repeat::kOnce, [this, &job] {
    const auto timer = std::move(job.timer);  // The callback is part of it.
    enqueueStart(job);
  });
}

void JobHost::startFailed(Job& job, const Error& error) {
  if (error.code == platform::ErrorCode::kChanged) {
    job.hasProgramChanged = true;
    if (onProgramChanged_) onProgramChanged_(job.label());
    return;
  }
  const JobAction action = nextAction(job.phase, JobEvent::kStartFailed, true, false);
  static_cast<void>(perform(job, action, nullptr));  // Only a start can fail.
}

std::vector<std::string> JobHost::labelsOfChangedPrograms() const {
  std::vector<std::string> labels;
  for (const auto& [label, job] : jobs_) {
    if (job.hasProgramChanged) labels.push_back(label);
  }
  return labels;
}

void JobHost::logFailedStart(Job& job, const Error& error) {
  const bool isRetried = error.code != platform::ErrorCode::kChanged;
  log(platform::ASL_LEVEL_ERR,
      fmt::format("{}{}", platform::describe(error),
                  isRetried ? "; it is tried again after its throttle interval" : ""),
      {.messageId = isRetried ? platform::kStartFailedId : platform::kProgramDamagedId,
       .label = job.label()});
  startFailed(job, error);
}

}  // namespace jobhost
