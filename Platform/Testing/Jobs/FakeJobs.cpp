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

using namespace std::chrono_literals;

// The time for which a client waits for an answer, and for an absent host, and the interval of its
// retries.
constexpr Duration kAnswerTimeOut = 30s;
constexpr Duration kRestartTimeOut = 5s;
constexpr Duration kRetryInterval = 50ms;

constexpr Duration kThrottle = 10s;
constexpr Duration kGoodRun = 1s;
constexpr Duration kFirstPause = 10ms;
constexpr Duration kLongestPause = 1s;
constexpr Duration kExitTimeOut = 20s;
// A failed start is not retried more often than this, whatever the throttle.
constexpr Duration kLeastRetry = 1s;

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

// The pause of a job without a throttle after so many runs in a row that were no good ones.
Duration pauseAfter(int shortRuns) {
  if (shortRuns < 2) return {};
  return std::min<Duration>(kFirstPause * (1 << std::min(shortRuns - 2, 10)), kLongestPause);
}

int waitStatus(ExitStatus status) {
  return status.kind == ExitStatus::Kind::kExited ? status.number << 8 : status.number;
}

}  // namespace

FakeJobs::Job& FakeJobs::add(const std::string& label) {
  const auto [found, isNewJob] = jobs_.try_emplace(label);
  Job& added = found->second;
  const auto last = lastStarts_.extract(label);
  if (isNewJob && last && last.mapped().until > loop_.now()) added.last = last.mapped();
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
  Job& forgotten = job(label);
  forgotten.last.until = earliestStart(forgotten);
  lastStarts_.insert_or_assign(label, forgotten.last);
  jobs_.erase(label);
}

void FakeJobs::endProcess(std::string_view label, ExitStatus status) {
  Job& ended = job(label);
  end(ended, status);
  if (ended.removing) {
    forget(std::string(label));
    return serveRequests();
  }
  if (isTrue(ended.dictionary["KeepAlive"])) startWhenThrottleAllows(std::string(label));
}

void FakeJobs::end(Job& job, ExitStatus status) {
  assert(job.process);
  const ProcessId process = *job.process;
  job.process.reset();
  job.lastExitStatus = waitStatus(status);
  job.history->add({loop_.wallTime(), job.lastExitStatus, loop_.now() - job.last.start},
                   job.removing);
  exitWatcher_.endProcess(process, status);
  if (job.removing) return;
  job.last.shortRuns = loop_.now() - job.last.start < kGoodRun ? job.last.shortRuns + 1 : 0;
  const bool hasThrottle =
      secondsOf(job.dictionary, "ThrottleInterval", kThrottle) > Duration::zero();
  job.last.pausedUntil =
      loop_.now() + (hasThrottle ? Duration::zero() : pauseAfter(job.last.shortRuns));
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
  loop_.scheduleOutsideEvent(kRetryInterval, [this] { isObserved_ = reachable_; });
  // Jobs that a host finds at its start.
  for (const auto& [label, job] : jobs_) {
    if (!job.process && isTrue(job.dictionary["KeepAlive"])) startWhenThrottleAllows(label);
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
  job.last.start = loop_.now();
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

bool FakeJobs::hasProgramChanged(const Value& dictionary) const {
  const auto file = files_.find(programOf(dictionary));
  const std::string* verified = dictionary[kJobVerifiedProgramKey].string();
  return verified && file != files_.end() && *verified != textOfVerifiedFile(file->second);
}

Instant FakeJobs::earliestStart(const Job& job) const {
  if (job.last.start == Instant{}) return loop_.now();
  const Duration throttle = secondsOf(job.dictionary, "ThrottleInterval", kThrottle);
  return std::max({loop_.now(), job.last.start + throttle, job.last.pausedUntil});
}

// The host is another program, so it starts processes even while this one waits.
void FakeJobs::startWhenThrottleAllows(const std::string& label) {
  const Instant earliest = earliestStart(job(label));
  if (earliest == loop_.now()) return startAgain(label);
  loop_.scheduleOutsideEvent(earliest - loop_.now(), [this, label] { startAgain(label); });
}

void FakeJobs::startAgain(const std::string& label) {
  const auto found = jobs_.find(label);
  if (found == jobs_.end() || found->second.process || found->second.removing) return;
  // The job may have been started and have ended since this start was planned.
  if (!reachable_ || earliestStart(found->second) > loop_.now()) return;
  if (start(label, found->second)) return;
  if (hasProgramChanged(found->second.dictionary)) {
    return loop_.post([this, label] { startObservers_.report(label, Start::kProgramChanged); });
  }
  const Duration throttle = secondsOf(found->second.dictionary, "ThrottleInterval", kThrottle);
  loop_.scheduleOutsideEvent(std::max(throttle, kLeastRetry), [this, label] { startAgain(label); });
}

std::expected<void, NSError> FakeJobs::SMJobSubmit(std::string_view domain, const Value& job,
                                                   const AuthorizationRef*) {
  auto submitted = submit(domain, job);
  if (const auto call = std::exchange(onSubmitted_, {})) call();
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
  if (submitted.process || (!isTrue(job["KeepAlive"]) && !isTrue(job["RunAtLoad"]))) return {};
  if (!isNew || earliestStart(submitted) > loop_.now()) {
    startWhenThrottleAllows(label);
    return {};
  }
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
  const Duration exitTimeOut = secondsOf(job.dictionary, "ExitTimeOut", kExitTimeOut);
  if (exitTimeOut == Duration::zero()) return;  // never
  loop_.scheduleOutsideEvent(exitTimeOut, [this, process = *job.process, label] {
    if (this->process(label) == process) {
      endProcess(label, {ExitStatus::Kind::kSignalled, SIGKILL});
    }
  });
}

void FakeJobs::submitJob(std::string_view domain, const Value& job, const AuthorizationRef*,
                         Submitted submitted) {
  const auto call = std::make_shared<Submitted>(std::move(submitted));
  const std::string label = job["Label"].string() ? *job["Label"].string() : "";
  take({.giveUpAt = {},
        .serve =
            [this, domain = std::string(domain), job, label, call] {
              if (find(label) && find(label)->removing) return false;
              answerLater(call, SMJobSubmit(domain, job, nullptr));
              return true;
            },
        .fail =
            [this, call](NSError error) {
              answerLater(call, std::expected<void, NSError>(std::unexpected(std::move(error))));
            }});
}

void FakeJobs::copyJob(std::string_view domain, std::string_view label, Copied copied) {
  ++copies_;
  const auto call = std::make_shared<Copied>(std::move(copied));
  take({.giveUpAt = {},
        .serve =
            [this, domain = std::string(domain), label = std::string(label), call] {
              Value answer = copy(domain, label);
              if (const auto hook = std::exchange(onCopied_, {})) hook();
              answerLater(call, std::move(answer));
              return true;
            },
        .fail = [this, call](const NSError&) { answerLater(call, Value(Dictionary())); }});
}

void FakeJobs::removeJob(std::string_view domain, std::string_view label, const AuthorizationRef*,
                         Removed removed) {
  const auto call = std::make_shared<Removed>(std::move(removed));
  take({.giveUpAt = {},
        .serve =
            [this, domain = std::string(domain), label = std::string(label), call,
             hasBegun = false]() mutable {
              if (!std::exchange(hasBegun, true)) {
                if (auto begun = SMJobRemove(domain, label, nullptr, false); !begun) {
                  answerLater(call, std::move(begun));
                  return true;
                }
              }
              if (find(label) && find(label)->removing) return false;
              answerLater(call, std::expected<void, NSError>());
              return true;
            },
        .fail =
            [this, call](NSError error) {
              answerLater(call, std::expected<void, NSError>(std::unexpected(std::move(error))));
            }});
}

void FakeJobs::take(Request request) {
  requests_.push_back(std::move(request));
  if (!reachable_ || isHung_) giveUpLater(requests_.back());
  serveRequests();
}

void FakeJobs::giveUpLater(Request& request) {
  Duration time = isHung_ ? kAnswerTimeOut : kRestartTimeOut;
  if (!reachable_ && isKnownAbsent_) time = Duration::zero();
  request.giveUpAt = loop_.now() + time;
  loop_.scheduleOutsideEvent(time, [this] { serveRequests(); });
}

// In their order. A hook of a test may change the host meanwhile.
void FakeJobs::serveRequests() {
  if (std::exchange(isServing_, true)) return;
  for (auto request = requests_.begin(); request != requests_.end();) {
    const bool isAnswering = reachable_ && !isHung_;
    const bool isGivenUp = !isAnswering && loop_.now() >= request->giveUpAt;
    if (isGivenUp) {
      isKnownAbsent_ = !reachable_;
      request->fail(
          reachable_ ? NSError{kCFErrorDomainLaunchd, static_cast<int>(LaunchdError::kInternal),
                               "the job host did not answer"}
                     : NSError{kCFErrorDomainLaunchd, static_cast<int>(LaunchdError::kUnavailable),
                               "the job host can't be reached"});
    }
    const bool isDone = isGivenUp || (isAnswering && request->serve());
    request = isDone ? requests_.erase(request) : std::next(request);
  }
  isServing_ = false;
}

template <class Call, class Answer>
void FakeJobs::answerLater(Call call, Answer answer) {
  loop_.post([call = std::move(call), answer = std::move(answer)]() mutable {
    (*call)(std::move(answer));
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
  if (known->process) dictionary.set(kJobProcessKey, *known->process);
  if (known->lastExitStatus) dictionary.set(kJobLastStatusKey, *known->lastExitStatus);
  dictionary.set(kJobHistoryKey, valueOfHistory(*known->history, JobHistoryDetail::kCountsAndEnds));
  return dictionary;
}

}  // namespace platform
