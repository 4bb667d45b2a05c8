#include "JobHost/JobHost.h"

#include <algorithm>
#include <csignal>
#include <utility>

#include <fmt/format.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/JobErrors.h"
#include "JobHost/RuntimeFolders.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::LaunchdError;
using platform::Result;
using platform::Value;

namespace {

bool isDue(platform::Instant due, platform::Instant now) { return now >= due; }

std::string describeEnding(const Ending& ending) {
  if (!ending) return "nobody could learn how";
  const platform::ExitStatus& status = ending->status;
  return fmt::format("{} {}{}",
                     status.kind == platform::ExitStatus::Kind::kExited ? "status" : "signal",
                     status.number, ending->hasCore ? ", with a core" : "");
}

}  // namespace

Result<std::unique_ptr<JobHost>> JobHost::create(platform::RunLoop& loop, Processes& processes,
                                                 platform::SystemLog& log, JobHostOptions options) {
  const auto folders = makeRuntimeFolders(options.root);
  if (!folders) return std::unexpected(folders.error());
  auto sockets = MachSockets::open(folders->mach);
  if (!sockets) return std::unexpected(std::move(sockets.error()));
  auto state = StateFile::open(folders->runtime, options.bootId, loop);
  if (!state) return std::unexpected(std::move(state.error()));
  std::unique_ptr<JobHost> host(new JobHost(loop, processes, log, std::move(options),
                                            *std::move(sockets), std::move(state->file)));
  for (const std::string& warning : state->warnings) {
    host->log(platform::ASL_LEVEL_WARNING, warning);
  }
  if (auto takenOver = host->takeOver(state->jobs, state->removedByClient); !takenOver) {
    return std::unexpected(std::move(takenOver.error()));
  }
  return host;
}

JobHost::JobHost(platform::RunLoop& loop, Processes& processes, platform::SystemLog& log,
                 JobHostOptions options, MachSockets sockets, std::unique_ptr<StateFile> state)
    : loop_(loop),
      processes_(processes),
      log_(log),
      options_(std::move(options)),
      sockets_(std::move(sockets)),
      state_(std::move(state)) {}

Job* JobHost::find(std::string_view label) {
  const auto found = jobs_.find(label);
  return found == jobs_.end() ? nullptr : &found->second;
}

void JobHost::log(platform::AslLevel level, const std::string& text) {
  log_.asl_log(nullptr, level, text);
}

void JobHost::submit(JobDefinition definition, Completion completion) {
  if (Job* const job = find(definition.label); job && job->removal && !isShuttingDown_) {
    job->removal->afterwards.push_back(
        [this, definition = std::move(definition), completion = std::move(completion)]() mutable {
          submit(std::move(definition), std::move(completion));
        });
    return;
  }
  Outcome outcome = submitNow(JobOrigin::kSubmitted, std::move(definition));
  answer(std::move(completion), std::move(outcome));
}

JobHost::Outcome JobHost::submitNow(JobOrigin origin, JobDefinition definition) {
  if (isShuttingDown_) {
    return std::unexpected(jobError(LaunchdError::kUnavailable,
                                    fmt::format("job {}: the job host is being stopped",
                                                platform::quotedInMessage(definition.label))));
  }
  if (auto known = checkAccount(definition); !known) {
    return std::unexpected(jobError(known.error()));
  }
  compactIfWanted();  // A full file would reject the submission.
  Job* const job = find(definition.label);
  const auto done = job ? replaceDefinition(*job, origin, definition) : addJob(origin, definition);
  if (done) return {};
  return std::unexpected(jobError(done.error()));
}

Result<void> JobHost::addJob(JobOrigin origin, const JobDefinition& definition) {
  if (jobs_.size() >= options_.maximumJobs) {
    return std::unexpected(
        Error{ErrorCode::kExhausted, 0,
              fmt::format("job {}: expected at most {} jobs",
                          platform::quotedInMessage(definition.label), options_.maximumJobs)});
  }
  const std::size_t mark = state_->mark();
  const auto cost = record(nullptr, origin, definition);
  if (!cost) return std::unexpected(cost.error());
  Job& job = jobs_[definition.label];
  setCost(job, *cost);
  auto done = define(job, origin, definition);
  if (done) {
    const bool wants = wantsProcessAtLoad(job.rules);
    done = perform(job, nextAction(job.phase, JobEvent::kSubmitted, wants, true), &definition);
  }
  if (!done) {
    sockets_.close(job.machService, job.label);
    setCost(job, 0);
    jobs_.erase(definition.label);
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
  }
  return done;
}

Result<void> JobHost::replaceDefinition(Job& job, JobOrigin origin,
                                        const JobDefinition& definition) {
  const bool isReplaced = isReplacedByClient(job.origin, origin);
  const std::size_t mark = state_->mark();
  const auto cost = record(&job, origin, definition);
  if (!cost) return std::unexpected(cost.error());
  if (auto defined = define(job, origin, definition); !defined) {
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
    return defined;
  }
  setCost(job, *cost);
  if (isReplaced) removedByClient_.insert(job.label);
  const bool mayStart = isDue(earliestStart(job.rules, job.lastTry), loop_.now());
  const JobAction action =
      nextAction(job.phase, JobEvent::kSubmitted, wantsProcessAtLoad(job.rules), mayStart);
  auto done = perform(job, action, &definition);
  if (!done) retryLater(job);
  return done;
}

Result<std::size_t> JobHost::record(const Job* known, JobOrigin origin,
                                    const JobDefinition& definition) {
  const std::size_t others = totalCost_ - (known ? known->cost : 0);
  const std::size_t left = StateFile::kMaximumCost - std::min(others, StateFile::kMaximumCost);
  const auto bytes = state_->appendSubmitted(origin, definition.dictionary, left);
  if (!bytes) {
    Error error = bytes.error();
    error.context.insert(0, fmt::format("job {}: ", platform::quotedInMessage(definition.label)));
    return std::unexpected(std::move(error));
  }
  return StateFile::costOf(definition.label, *bytes);
}

void JobHost::setCost(Job& job, std::size_t cost) {
  totalCost_ = totalCost_ - job.cost + cost;
  job.cost = cost;
}

Result<void> JobHost::define(Job& job, JobOrigin origin, const JobDefinition& definition) {
  const std::string service =
      definition.machServices.empty() ? std::string() : definition.machServices.front();
  if (!service.empty()) {
    if (const auto socket = sockets_.listen(service, definition.label); !socket) {
      return std::unexpected(socket.error());
    }
  }
  if (job.machService != service) sockets_.close(job.machService, job.label);
  fillIn(job, origin, definition);
  return {};
}

void JobHost::fillIn(Job& job, JobOrigin origin, const JobDefinition& definition) {
  job.label = definition.label;
  job.dictionary = definition.dictionary;
  job.rules = {definition.keepAlive, definition.runAtLoad, definition.throttleInterval};
  job.exitTimeOut = definition.exitTimeOut;
  job.machService = definition.machServices.empty() ? "" : definition.machServices.front();
  job.origin = origin;
}

Result<void> JobHost::perform(Job& job, JobAction action, const JobDefinition* definition) {
  switch (action) {
    case JobAction::kNothing:
      return {};
    case JobAction::kBecomeIdle:
      job.timer.reset();
      job.phase = JobPhase::kIdle;
      return {};
    case JobAction::kWait:
      waitUntil(job, earliestStart(job.rules, job.lastTry));
      return {};
    case JobAction::kStart:
      break;
  }
  job.timer.reset();
  job.phase = JobPhase::kIdle;
  if (definition) return startProcess(job, *definition);
  const auto parsed = parseJobDefinition(job.dictionary);
  if (!parsed) return std::unexpected(parsed.error());
  return startProcess(job, *parsed);
}

Result<void> JobHost::startProcess(Job& job, const JobDefinition& definition) {
  platform::Descriptor listener = -1;
  job.lastTry = loop_.now();
  if (!job.machService.empty()) {
    const auto socket = sockets_.listen(job.machService, job.label);
    if (!socket) return std::unexpected(socket.error());
    listener = *socket;
  }
  auto record = state_->makeStartRecord(job.label, *job.lastTry);
  if (!record) return std::unexpected(std::move(record.error()));
  const std::size_t mark = state_->mark();
  const auto process =
      processes_.start(definition, state_->ticketFor(*record), listener, onEndOf(job));
  if (!process) {
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
    return std::unexpected(process.error());
  }
  job.lastStart = state_->countStart(*record);
  job.hasLeader = true;
  job.phase = JobPhase::kRunning;
  if (onStarted_) onStarted_(job.label, *process);
  log(platform::ASL_LEVEL_INFO,
      fmt::format("job {}: started process {}", platform::quotedInMessage(job.label), *process));
  return {};
}

Processes::OnEnd JobHost::onEndOf(Job& job) {
  return [this, &job, alive = std::weak_ptr(alive_)](Ending ending) {
    if (!alive.expired()) processEnded(job, ending);
  };
}

void JobHost::processEnded(Job& job, Ending ending) {
  // If the ending is known, the process was our child and was reaped just now, so its number can't
  // mean another group yet. A process of another parent may have been reaped at any time since its
  // end.
  const bool hasGroup = ending || processes_.hasRemainingProcesses(job.lastStart);
  // The remaining processes of the group belong to no later process of the job. Kill them before
  // the end is recorded: the next host looks for the group of a process only if its end is not on
  // record.
  if (!job.removal && hasGroup) processes_.signalGroup(job.lastStart.process, SIGKILL);
  compactIfWanted();  // A full file would reject the record of the end.
  job.hasLeader = false;
  job.lastEnd = ending;
  if (auto written = state_->appendEnded(job.label, ending); !written) {
    log(platform::ASL_LEVEL_ERR, platform::describe(written.error()));
  }
  const std::string what =
      fmt::format("job {}: process {} ended ({})", platform::quotedInMessage(job.label),
                  job.lastStart.process, describeEnding(ending));
  if (job.removal) {
    log(platform::ASL_LEVEL_INFO, what);
    if (!hasGroup) return finishRemoval(job);
    awaitGroup(job);
    return;
  }
  const bool mayStart = isDue(earliestStart(job.rules, job.lastTry), loop_.now());
  const bool wants = wantsProcessAfter(job.rules, ending);
  const auto done = perform(
      job, nextAction(JobPhase::kRunning, JobEvent::kProcessEnded, wants, mayStart), nullptr);
  log(platform::ASL_LEVEL_INFO, what);  // After the start, so as not to delay it.
  if (!done) logAndRetry(job, done.error());
}

void JobHost::waitUntil(Job& job, platform::Instant due) {
  job.phase = JobPhase::kWaiting;
  const platform::Instant now = loop_.now();
  const platform::Duration delay = due > now ? due - now : platform::Duration::zero();
  job.timer = loop_.startTimer(delay, platform::RunLoop::Repeat::kOnce, [this, &job] {
    const auto timer = std::move(job.timer);  // The callback is part of it.
    compactIfWanted();
    const auto done = perform(job, nextAction(job.phase, JobEvent::kDue, true, true), nullptr);
    if (!done) logAndRetry(job, done.error());
  });
}

void JobHost::retryLater(Job& job) {
  waitUntil(job, earliestRetry(job.rules, job.lastTry.value_or(loop_.now())));
}

void JobHost::logAndRetry(Job& job, const Error& error) {
  log(platform::ASL_LEVEL_ERR,
      fmt::format("{}; it is tried again after its throttle interval", platform::describe(error)));
  retryLater(job);
}

Value JobHost::copy(std::string_view label) {
  Job* job = find(label);
  if (!job) return {};
  if (job->hasLeader) {
    processes_.reportIfEnded(job->lastStart.process);
    job = find(label);  // The report may have finished its removal.
    if (!job) return {};
  }
  platform::Dictionary dictionary = *job->dictionary.dictionary();
  // Only the host may set these.
  for (const char* key :
       {platform::kJobProcessKey, platform::kJobLastStatusKey, platform::kJobLastStatusUnknownKey})
    dictionary.remove(key);
  if (job->hasLeader) dictionary.set(platform::kJobProcessKey, job->lastStart.process);
  if (job->lastEnd && *job->lastEnd) {
    dictionary.set(platform::kJobLastStatusKey, waitStatusOf(**job->lastEnd));
  } else if (job->lastEnd) {
    dictionary.set(platform::kJobLastStatusUnknownKey, true);
  }
  return dictionary;
}

std::vector<std::string> JobHost::labels() const {
  std::vector<std::string> labels;
  for (const auto& [label, job] : jobs_) labels.push_back(label);
  return labels;
}

}  // namespace jobhost
