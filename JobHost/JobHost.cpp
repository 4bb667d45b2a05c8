#include "JobHost/JobHost.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/format.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/JobErrors.h"
#include "JobHost/RuntimeFolders.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::JobHistoryDetail;
using platform::LaunchdError;
using platform::Result;
using platform::Value;

namespace {

// The keys of a copy that say how the job is. Only the host may set them.
constexpr std::array kStateKeys{platform::kJobProcessKey,           platform::kJobLastStatusKey,
                                platform::kJobLastStatusUnknownKey, platform::kJobProgramChangedKey,
                                platform::kJobHistoryKey,           platform::kJobTreeKey};

}  // namespace

Result<std::unique_ptr<JobHost>> JobHost::create(platform::RunLoop& loop, Processes& processes,
                                                 platform::SystemLog& log, JobHostOptions options) {
  const auto folders = makeRuntimeFolders(options.root);
  if (!folders) return std::unexpected(folders.error());
  auto sockets = MachSockets::open(folders->mach, options.audienceOfService);
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

void JobHost::log(platform::AslLevel level, const std::string& text, platform::LogFields fields,
                  const std::source_location& where) {
  fields.where = where;
  log_.asl_log(nullptr, level, text, fields);
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
  Job& job = insertJob(definition.label);
  setCost(job, *cost);
  histories_.addJob(definition.label, loop_.wallTime());
  auto done = define(job, origin, definition);
  if (done) {
    const bool wants = wantsProcessAtLoad(job.rules);
    lastStarts_.lendTo(job, loop_.now());
    const bool mayStart = loop_.now() >= earliestStartOf(job);
    done = perform(job, nextAction(job.phase, JobEvent::kSubmitted, wants, mayStart), &definition);
  }
  if (!done) {
    closeServices(job);
    setCost(job, 0);
    histories_.removeJob(definition.label);
    jobs_.erase(definition.label);
    processes_.discard(definition.label);
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
    return done;
  }
  // A refused submission does not end the throttle of its label.
  lastStarts_.forget(definition.label);
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
  if (isReplaced) removedByClient_.insert(job.label());
  job.isDemanded = false;  // The new definition may have other services, or none.
  const bool mayStart = loop_.now() >= earliestStartOf(job);
  const JobAction action =
      nextAction(job.phase, JobEvent::kSubmitted, wantsProcessAtLoad(job.rules), mayStart);
  auto done = perform(job, action, &definition);
  if (!done) startFailed(job, done.error());
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
  if (!known || known->dictionary != definition.dictionary) logRemarks(definition);
  return StateFile::costOf(definition.label, *bytes);
}

void JobHost::logRemarks(const JobDefinition& definition) {
  for (const std::string& remark : definition.remarks) {
    log(platform::ASL_LEVEL_NOTICE,
        fmt::format("job {}: {}", platform::quotedInMessage(definition.label), remark));
  }
}

void JobHost::setCost(Job& job, std::size_t cost) {
  totalCost_ = totalCost_ - job.cost + cost;
  job.cost = cost;
}

Result<void> JobHost::define(Job& job, JobOrigin origin, const JobDefinition& definition) {
  // A process whose definition was lost may have the sockets.
  if (job.isDefinitionLost && job.hasLeader) takeOverServices(job, definition.machServices);
  if (auto bound = bindServices(job, definition); !bound) return bound;
  closeServices(job, definition.machServices);
  fillIn(job, origin, definition);
  return {};
}

Job& JobHost::insertJob(const std::string& label) {
  const auto entry = jobs_.try_emplace(label).first;
  entry->second.key = &entry->first;
  return entry->second;
}

void JobHost::fillIn(Job& job, JobOrigin origin, const JobDefinition& definition) {
  job.dictionary = definition.dictionary;
  job.rules = {definition.keepAlive, definition.runAtLoad, definition.throttleInterval};
  job.exitTimeOut = definition.exitTimeOut;
  job.machServices = definition.machServices;
  job.origin = origin;
  job.isDefinitionLost = false;
  job.hasProgramChanged = false;
}

Job* JobHost::findAsOfNow(std::string_view label) {
  Job* const job = find(label);
  if (!job || !job->hasLeader) return job;
  job->process->reportIfEnded();
  return find(label);
}

Value JobHost::copy(std::string_view label) {
  Job* const job = findAsOfNow(label);
  if (!job) return {};
  // A client that has seen the end of a process asks at once for the next one.
  startIfQueued(*job);
  platform::Dictionary dictionary = *job->dictionary.dictionary();
  for (const char* key : kStateKeys) dictionary.remove(key);
  for (const auto& [key, value] : stateOf(*job, JobHistoryDetail::kCountsAndEnds)) {
    dictionary.set(key, value);
  }
  const auto tree = job->process ? job->process->tree() : std::nullopt;
  if (tree) dictionary.set(platform::kJobTreeKey, valueOfTree(*tree));
  return dictionary;
}

Value JobHost::copyState(std::string_view label) {
  const Job* const job = findAsOfNow(label);
  return job ? Value(stateOf(*job, JobHistoryDetail::kCounts)) : Value();
}

platform::Dictionary JobHost::stateOf(const Job& job, JobHistoryDetail detail) const {
  platform::Dictionary state;
  if (job.hasLeader || job.awaitsAdoption()) {
    state.set(platform::kJobProcessKey, job.lastStart.process);
  }
  if (job.lastEnd && *job.lastEnd) {
    state.set(platform::kJobLastStatusKey, waitStatusOf(**job.lastEnd));
  } else if (job.lastEnd) {
    state.set(platform::kJobLastStatusUnknownKey, true);
  }
  if (job.hasProgramChanged) state.set(platform::kJobProgramChangedKey, true);
  state.set(platform::kJobHistoryKey, valueOfHistory(histories_.of(job.label()), detail));
  return state;
}

std::vector<std::string> JobHost::labelsAfter(std::string_view after, std::size_t most) const {
  std::vector<std::string> labels;
  for (auto job = jobs_.upper_bound(after); job != jobs_.end() && labels.size() < most; ++job) {
    labels.push_back(job->first);
  }
  return labels;
}

}  // namespace jobhost
