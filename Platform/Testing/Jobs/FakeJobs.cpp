#include "Platform/Testing/Jobs/FakeJobs.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <csignal>
#include <iterator>
#include <memory>
#include <utility>

namespace platform {
namespace {

std::unexpected<NSError> failure(LaunchdError code, std::string text) {
  return std::unexpected(NSError{kCFErrorDomainLaunchd, static_cast<int>(code), std::move(text)});
}

std::unexpected<NSError> invalidJob(const std::string& label, const std::string& key,
                                    const std::string& expected) {
  return failure(LaunchdError::kInvalidJob,
                 "job \"" + label + "\": key \"" + key + "\": expected " + expected);
}

std::string programOf(const Value& dictionary) {
  if (const std::string* program = dictionary["Program"].string()) return *program;
  const Array* arguments = dictionary["ProgramArguments"].array();
  const std::string* first =
      arguments && !arguments->empty() ? arguments->front().string() : nullptr;
  return first ? *first : "";
}

Duration secondsOf(const Value& dictionary, std::string_view key, Duration otherwise) {
  const auto seconds = dictionary[key].integer();
  return seconds ? Duration(std::chrono::seconds(*seconds)) : otherwise;
}

bool isTrue(const Value& value) { return value.boolean() == true; }

std::expected<void, NSError> check(const Value& dictionary) {
  if (!dictionary.dictionary()) return invalidJob("", "", "a dictionary");
  const std::string* label = dictionary["Label"].string();
  if (!label || label->empty()) return invalidJob("", "Label", "a string");
  if (!programOf(dictionary).starts_with('/')) return invalidJob(*label, "Program", "a path");
  for (const char* key : {"KeepAlive", "RunAtLoad"}) {
    if (!dictionary[key].isNil() && !dictionary[key].boolean()) {
      return invalidJob(*label, key, "a boolean");
    }
  }
  for (const char* key : {"ThrottleInterval", "ExitTimeOut"}) {
    if (!dictionary[key].isNil() && dictionary[key].integer().value_or(-1) < 0) {
      return invalidJob(*label, key, "an integer of seconds");
    }
  }
  return {};
}

RestartRules rulesOf(const Value& dictionary) {
  return {.keepAlive = {.always = isTrue(dictionary["KeepAlive"])},
          .runAtLoad = isTrue(dictionary["RunAtLoad"]),
          .throttleInterval = secondsOf(dictionary, "ThrottleInterval", kDefaultThrottleInterval)};
}

int waitStatus(ExitStatus status) {
  return status.kind == ExitStatus::Kind::kExited ? status.number << 8 : status.number;
}

}  // namespace

FakeJobs::Job& FakeJobs::add(const std::string& label) {
  const auto [found, isNewJob] = jobs_.try_emplace(label);
  Job& added = found->second;
  const auto last = lastStarts_.extract(label);
  if (isNewJob && last && last.mapped().until > loop_.now()) added.recent = last.mapped().starts;
  const auto [history, isNew] = histories_.try_emplace(label);
  if (isNew) history->second.since = loop_.wallTime();
  added.history = &history->second;
  return added;
}

FakeJobs::Job& FakeJobs::job(std::string_view label) {
  const auto found = jobs_.find(label);
  assert(found != jobs_.end());
  return found->second;
}

const FakeJobs::Job* FakeJobs::find(std::string_view label) const {
  const auto found = jobs_.find(label);
  return found == jobs_.end() ? nullptr : &found->second;
}

// Its throttle outlives it, for as long as it delays the next start.
void FakeJobs::forget(const std::string& label) {
  const Job& forgotten = job(label);
  lastStarts_.insert_or_assign(
      label, LastStarts{forgotten.recent, earliestStart(forgotten.rules, forgotten.recent)});
  jobs_.erase(label);
}

void FakeJobs::endProcess(std::string_view label, ExitStatus status) {
  Job& ended = job(label);
  end(ended, status);
  if (ended.removing) {
    forget(std::string(label));
    return serveRequests();
  }
  static_cast<void>(
      act(std::string(label), JobEvent::kProcessEnded, wantsProcessAfter(ended.rules, status)));
}

void FakeJobs::end(Job& job, ExitStatus status) {
  assert(job.process);
  const ProcessId process = *job.process;
  job.process.reset();
  job.lastExitStatus = waitStatus(status);
  const Duration ran = loop_.now() - job.recent.last.value_or(loop_.now());
  job.history->add({loop_.wallTime(), job.lastExitStatus, ran}, job.removing);
  exitWatcher_.endProcess(process, status);
  if (!job.removing) noteEnd(job.rules, job.recent, loop_.now());
}

void FakeJobs::setUnstartable(const std::string& path, std::optional<std::string> reason) {
  if (reason) {
    unstartable_[path] = *reason;
  } else {
    unstartable_.erase(path);
  }
}

void FakeJobs::setReachable(bool reachable) {
  reachable_ = reachable;
  isObserved_ = false;
  if (!reachable) {
    for (Request& request : requests_) giveUpLater(request);
    return;
  }
  lastStarts_.clear();
  for (auto& [label, history] : histories_) {
    history = JobHistory();
    history.since = loop_.wallTime();
  }
  loop_.scheduleOutsideEvent(kRetryInterval, [this] {
    isObserved_ = reachable_;
    reportChangedPrograms();
  });
  // Jobs that a host finds at its start.
  for (const auto& [label, job] : jobs_) {
    if (job.process) continue;
    static_cast<void>(act(label, JobEvent::kProcessEnded, wantsProcessAfter(job.rules, {})));
  }
  isKnownAbsent_ = false;
  serveRequests();
}

void FakeJobs::setHung(bool hung) {
  isHung_ = hung;
  if (hung) {
    for (Request& request : requests_) giveUpLater(request);
  }
  serveRequests();
}

std::vector<std::string> FakeJobs::labels() const {
  std::vector<std::string> labels;
  for (const auto& [label, job] : jobs_) labels.push_back(label);
  return labels;
}

std::optional<ProcessId> FakeJobs::process(std::string_view label) const {
  const Job* known = find(label);
  return known ? known->process : std::nullopt;
}

std::size_t FakeJobs::starts(std::string_view label) const {
  const Job* known = find(label);
  return known ? known->starts : 0;
}

bool FakeJobs::awaitHost() {
  if (isKnownAbsent_ && !reachable_) return false;
  for (Duration waited{}; !reachable_ && waited < kRestartTimeOut; waited += kRetryInterval) {
    loop_.sleepFor(kRetryInterval);
  }
  isKnownAbsent_ = !reachable_;
  return reachable_;
}

std::expected<void, NSError> FakeJobs::admit(std::string_view domain) {
  if (domain != kSMDomainSystemLaunchd) {
    return failure(
        LaunchdError::kUnavailable,
        "domain \"" + std::string(domain) + "\": expected \"" + kSMDomainSystemLaunchd + "\"");
  }
  if (!awaitHost()) return failure(LaunchdError::kUnavailable, "the job host can't be reached");
  if (!callerAllowed_) return failure(LaunchdError::kNotAuthorized, "this user may not");
  return {};
}

std::expected<void, NSError> FakeJobs::start(const std::string& label, Job& job) {
  const std::string program = programOf(job.dictionary);
  if (hasProgramChanged(job.dictionary)) {
    return failure(LaunchdError::kProgramChanged,
                   "job \"" + label + "\": " + program + ": changed");
  }
  job.recent.last = loop_.now();
  if (const auto reason = unstartable_.find(program); reason != unstartable_.end()) {
    return failure(LaunchdError::kInternal,
                   "job \"" + label + "\": " + program + ": " + reason->second);
  }
  job.process = ++lastProcess_;
  job.ignoresTermination = false;
  ++job.starts;
  ++job.history->starts;
  exitWatcher_.startProcess(*job.process);
  if (isObserved_) loop_.post([this, label] { startObservers_.report(label, Start::kStarted); });
  return {};
}

std::expected<void, NSError> FakeJobs::act(const std::string& label, JobEvent event,
                                           bool wantsProcess) {
  const auto found = jobs_.find(label);
  if (found == jobs_.end()) return {};
  Job& job = found->second;
  const Instant earliest = earliestStart(job.rules, job.recent);
  const JobPhase idle = event == JobEvent::kDue ? JobPhase::kWaiting : JobPhase::kIdle;
  const JobPhase phase = job.removing  ? JobPhase::kRemoving
                         : job.process ? JobPhase::kRunning
                                       : idle;
  switch (nextAction(phase, event, wantsProcess, loop_.now() >= earliest)) {
    case JobAction::kNothing:
    case JobAction::kBecomeIdle:
      break;
    case JobAction::kStart: {
      auto started = start(label, job);
      if (!started) startFailed(label, job);
      return started;
    }
    case JobAction::kWait:
      startAt(label, earliest);
      break;
    case JobAction::kRetry:
      startAt(label, earliestRetry(job.rules, job.recent.last.value_or(loop_.now())));
      break;
  }
  return {};
}

void FakeJobs::startFailed(const std::string& label, Job& job) {
  job.waitsForSubmission = hasProgramChanged(job.dictionary);
  if (job.waitsForSubmission) return reportChangedProgram(label);
  static_cast<void>(act(label, JobEvent::kStartFailed, true));  // Only a start can fail.
}

void FakeJobs::reportChangedProgram(const std::string& label) {
  if (!isObserved_) return;
  loop_.post([this, label] { startObservers_.report(label, Start::kProgramChanged); });
}

void FakeJobs::reportChangedPrograms() {
  for (const auto& [label, job] : jobs_) {
    if (job.waitsForSubmission) reportChangedProgram(label);
  }
}

std::unique_ptr<RunLoopHandle> FakeJobs::observeStarts(StartObserver observer) {
  const bool isFirst = startObservers_.empty();
  auto handle = startObservers_.add(std::move(observer));
  if (isFirst) reportChangedPrograms();
  return handle;
}

bool FakeJobs::hasProgramChanged(const Value& dictionary) const {
  const auto file = files_.find(programOf(dictionary));
  const std::string* verified = dictionary[kJobVerifiedProgramKey].string();
  return verified && file != files_.end() && *verified != textOfVerifiedFile(file->second);
}

// The host is another program, so it starts processes even while this one waits.
void FakeJobs::startAt(const std::string& label, Instant due) {
  loop_.scheduleOutsideEvent(due - loop_.now(), [this, label] {
    if (reachable_) static_cast<void>(act(label, JobEvent::kDue, true));
  });
}

std::expected<void, NSError> FakeJobs::SMJobSubmit(std::string_view domain, const Value& job,
                                                   const AuthorizationRef*) {
  auto submitted = submit(domain, job);
  if (const auto call = std::exchange(onSubmitted_, {})) call();
  if (std::exchange(losesAnswer_, false)) return failure(LaunchdError::kUnavailable, "no answer");
  return submitted;
}

std::expected<void, NSError> FakeJobs::submit(std::string_view domain, const Value& job) {
  if (auto admitted = admit(domain); !admitted) return admitted;
  if (auto checked = check(job); !checked) return checked;
  const std::string label = *job["Label"].string();
  // A job that is being removed is submitted after its end.
  awaitRemoval(label);
  const bool isNew = !jobs_.contains(label);
  if (isNew && isFull_) return failure(LaunchdError::kHostIsFull, "the host takes no more jobs");
  Job& submitted = add(label);
  submitted.dictionary = job;
  submitted.waitsForSubmission = false;
  submitted.rules = rulesOf(job);
  const bool wants = wantsProcessAtLoad(submitted.rules);
  const bool mayStart = loop_.now() >= earliestStart(submitted.rules, submitted.recent);
  if (!isNew || !wants || !mayStart) return act(label, JobEvent::kSubmitted, wants);
  auto started = start(label, submitted);
  if (!started) jobs_.erase(label);
  return started;
}

std::expected<void, NSError> FakeJobs::SMJobRemove(std::string_view domain, std::string_view label,
                                                   const AuthorizationRef*, bool wait) {
  if (auto admitted = admit(domain); !admitted) return admitted;
  if (const auto reason = irremovable_.find(label); reason != irremovable_.end()) {
    return failure(LaunchdError::kNotAuthorized, reason->second);
  }
  const auto found = jobs_.find(label);
  if (found == jobs_.end()) {
    return failure(LaunchdError::kNoSuchJob, "job \"" + std::string(label) + "\": no such job");
  }
  Job& removed = found->second;
  if (!removed.process || !removed.ignoresTermination) {
    removed.removing = true;
    if (removed.process) end(removed, {ExitStatus::Kind::kSignalled, SIGTERM});
    forget(std::string(label));
    return {};
  }
  if (!std::exchange(removed.removing, true)) killLater(found->first, removed);
  if (wait) awaitRemoval(label);
  return {};
}

void FakeJobs::killLater(const std::string& label, const Job& job) {
  const Duration exitTimeOut =
      secondsOf(job.dictionary, "ExitTimeOut", std::chrono::seconds(kDefaultExitTimeOut));
  if (exitTimeOut == Duration::zero()) return;  // never
  loop_.scheduleOutsideEvent(exitTimeOut, [this, process = *job.process, label] {
    if (this->process(label) == process) {
      endProcess(label, {ExitStatus::Kind::kSignalled, SIGKILL});
    }
  });
}

void FakeJobs::awaitRemoval(std::string_view label) {
  while (find(label) && find(label)->removing) loop_.sleepFor(kRetryInterval);
}

Value FakeJobs::SMJobCopyDictionary(std::string_view domain, std::string_view label) {
  ++copies_;
  Value copied = copy(domain, label);
  if (const auto call = std::exchange(onCopied_, {})) call();
  return copied;
}

Value FakeJobs::copy(std::string_view domain, std::string_view label) {
  if (domain != kSMDomainSystemLaunchd) return {};
  if (!admit(domain)) return Dictionary();
  const Job* known = find(label);
  if (!known) return {};
  Dictionary dictionary = *known->dictionary.dictionary();
  addState(dictionary, *known, JobHistoryDetail::kCountsAndEnds);
  return dictionary;
}

void FakeJobs::addState(Dictionary& dictionary, const Job& job, JobHistoryDetail detail) {
  if (job.process) dictionary.set(kJobProcessKey, *job.process);
  if (job.lastExitStatus) dictionary.set(kJobLastStatusKey, *job.lastExitStatus);
  if (job.waitsForSubmission) dictionary.set(kJobProgramChangedKey, true);
  dictionary.set(kJobHistoryKey, valueOfHistory(*job.history, detail));
}

}  // namespace platform
