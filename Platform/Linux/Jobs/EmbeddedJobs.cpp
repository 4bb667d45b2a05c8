#include "Platform/Linux/Jobs/EmbeddedJobs.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "Platform/Linux/Jobs/JobHostMessages.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// A host that takes longer hangs. Starting a program can take as long as a disk takes to spin up.
constexpr Duration kJobsAnswerTimeOut = 30s;

// A removal takes as long as the job's ExitTimeOut. No caller waits longer than this, even for a
// job that is never killed.
constexpr std::int64_t kLongestExitTimeOut = 3600;

// How soon a request for the starts of jobs that has failed is made again.
constexpr Duration kStartsRetryInterval = 1s;

NSError launchdErrorOf(LaunchdError code, std::string text) {
  return NSError{kCFErrorDomainLaunchd, static_cast<int>(code), std::move(text)};
}

NSError launchdErrorOf(const Error& error) {
  // Not kUnavailable: callers would say that the host does not run.
  if (error.osError == ETIMEDOUT) return launchdErrorOf(LaunchdError::kInternal, describe(error));
  switch (error.code) {
    case ErrorCode::kDenied:
      return launchdErrorOf(LaunchdError::kNotAuthorized, describe(error));
    case ErrorCode::kInvalid:  // The message could not be sent.
      return launchdErrorOf(LaunchdError::kInvalidJob, describe(error));
    case ErrorCode::kNotFound:
    case ErrorCode::kExhausted:
    case ErrorCode::kChanged:
    case ErrorCode::kSystem:
      break;
  }
  return launchdErrorOf(LaunchdError::kUnavailable, describe(error));
}

std::expected<void, NSError> checkDomain(std::string_view domain) {
  if (domain == kSMDomainSystemLaunchd) return {};
  return std::unexpected(launchdErrorOf(
      LaunchdError::kUnavailable,
      "domain \"" + std::string(domain) + "\": there is only \"" + kSMDomainSystemLaunchd + "\""));
}

// A repeated removal finds no job, because the first request removed it.
bool isDone(const NSError& error, bool wasRepeated) {
  return wasRepeated && error.code == static_cast<int>(LaunchdError::kNoSuchJob);
}

// The value of an answer, or why there is none.
std::expected<Value, NSError> valueIn(const Result<JobHostClient::Answer>& answer) {
  if (!answer) return std::unexpected(launchdErrorOf(answer.error()));
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  return answer->value;
}

std::expected<void, NSError> outcomeIn(const Result<JobHostClient::Answer>& answer) {
  if (auto value = valueIn(answer); !value) return std::unexpected(std::move(value.error()));
  return {};
}

std::expected<void, NSError> outcomeOfRemoval(const Result<JobHostClient::Answer>& answer) {
  auto outcome = outcomeIn(answer);
  if (!outcome && answer && isDone(outcome.error(), answer->wasRepeated)) return {};
  return outcome;
}

// The time-out of a removal that waits for the end of this job.
Duration removalTime(const Value& job) {
  std::int64_t seconds = job["ExitTimeOut"].integer().value_or(kDefaultExitTimeOut);
  if (seconds <= 0) seconds = kLongestExitTimeOut;  // Never killed.
  return std::chrono::seconds(std::min(seconds, kLongestExitTimeOut)) + kJobsAnswerTimeOut;
}

NSError malformedAnswer() {
  return launchdErrorOf(LaunchdError::kInternal, "the job host's answer is malformed");
}

// A job's dictionary, nil if there is no such job.
std::expected<Value, NSError> jobIn(const Result<JobHostClient::Answer>& answer) {
  auto job = valueIn(answer);
  if (job && !job->isNil() && !job->dictionary()) return std::unexpected(malformedAnswer());
  return job;
}

}  // namespace

std::expected<void, NSError> EmbeddedJobs::SMJobSubmit(std::string_view domain, const Value& job,
                                                       const AuthorizationRef*) {
  if (auto checked = checkDomain(domain); !checked) return checked;
  return outcomeIn(client_.call(kSubmitJobMessage, Array{job}, kJobsAnswerTimeOut));
}

std::expected<void, NSError> EmbeddedJobs::SMJobRemove(std::string_view domain,
                                                       std::string_view label,
                                                       const AuthorizationRef*, bool wait) {
  if (auto checked = checkDomain(domain); !checked) return checked;
  const Duration time = wait ? removalTime(copyJob(label).value_or(Value())) : kJobsAnswerTimeOut;
  return outcomeOfRemoval(client_.call(kRemoveJobMessage, Array{label, wait}, time));
}

Value EmbeddedJobs::SMJobCopyDictionary(std::string_view domain, std::string_view label) {
  if (!checkDomain(domain)) return {};
  return copyJob(label).value_or(Value(Dictionary()));
}

std::expected<Value, NSError> EmbeddedJobs::copyJob(std::string_view label) {
  return jobIn(client_.call(kCopyJobMessage, Array{label}, kJobsAnswerTimeOut));
}

std::expected<Dictionary, NSError> EmbeddedJobs::copyJobStates() {
  Dictionary all;
  for (std::string last;;) {
    const auto page = valueIn(client_.call(kCopyJobStatesAfterMessage, {last}, kJobsAnswerTimeOut));
    if (!page) return std::unexpected(page.error());
    const Dictionary* states = page->dictionary();
    if (!states) return std::unexpected(malformedAnswer());
    if (states->empty()) return all;
    for (const auto& [label, state] : *states) {
      if (label <= last) return std::unexpected(malformedAnswer());
      all.set(label, state);
      last = label;
    }
  }
}

// Without blocking.

// Gives an answer that needs no request.
template <class Call, class Answer>
void EmbeddedJobs::callLater(Call call, Answer answer) {
  client_.loop().post([alive = std::weak_ptr(alive_), call = std::move(call),
                       answer = std::move(answer)]() mutable {
    if (!alive.expired()) call(std::move(answer));
  });
}

void EmbeddedJobs::submitJob(std::string_view domain, const Value& job, const AuthorizationRef*,
                             Submitted submitted) {
  if (auto checked = checkDomain(domain); !checked) {
    return callLater(std::move(submitted), std::move(checked));
  }
  client_.callAsync(kSubmitJobMessage, Array{job}, kJobsAnswerTimeOut,
                    [alive = std::weak_ptr(alive_),
                     submitted = std::move(submitted)](const auto& answer) mutable {
                      if (!alive.expired()) submitted(outcomeIn(answer));
                    });
}

void EmbeddedJobs::copyJob(std::string_view domain, std::string_view label, Copied copied) {
  if (!checkDomain(domain)) return callLater(std::move(copied), Value());
  client_.callAsync(
      kCopyJobMessage, Array{label}, kJobsAnswerTimeOut,
      [alive = std::weak_ptr(alive_), copied = std::move(copied)](const auto& answer) mutable {
        if (!alive.expired()) copied(jobIn(answer).value_or(Value(Dictionary())));
      });
}

void EmbeddedJobs::copyStatesAfter(std::string_view label, Copied copied) {
  client_.callAsync(
      kCopyJobStatesAfterMessage, Array{label}, kJobsAnswerTimeOut,
      [alive = std::weak_ptr(alive_), copied = std::move(copied)](const auto& answer) mutable {
        if (alive.expired()) return;
        const auto states = valueIn(answer);
        copied(states && states->dictionary() ? *states : Value());
      });
}

// The host gets two requests at once. The answer to the first, a copy of the job, limits the
// second.
void EmbeddedJobs::removeJob(std::string_view domain, std::string_view label,
                             const AuthorizationRef*, Removed removed) {
  if (auto checked = checkDomain(domain); !checked) {
    return callLater(std::move(removed), std::move(checked));
  }
  const auto removal = std::make_shared<JobHostClient::RequestId>();
  client_.callAsync(kCopyJobMessage, Array{label}, kJobsAnswerTimeOut,
                    [this, alive = std::weak_ptr(alive_), removal](const auto& answer) {
                      if (alive.expired()) return;
                      client_.limit(*removal, removalTime(answer ? answer->value : Value()));
                    });
  *removal = client_.callAsync(
      kRemoveJobMessage, Array{label, true}, removalTime(Dictionary{{"ExitTimeOut", 0}}),
      [alive = std::weak_ptr(alive_), removed = std::move(removed)](const auto& answer) mutable {
        if (!alive.expired()) removed(outcomeOfRemoval(answer));
      },
      JobHostClient::Room::kLong);
}

std::unique_ptr<RunLoopHandle> EmbeddedJobs::observeStarts(StartObserver observer) {
  auto handle = startObservers_.add(std::move(observer));
  awaitStarts();
  return handle;
}

// One request is always pending. The host collects the starts that happen between two requests, so
// a client that does not turn for a while gets one answer and no flood.
void EmbeddedJobs::awaitStarts() {
  if (isAwaitingStarts_) return;
  isAwaitingStarts_ = true;
  client_.callAsync(
      kAwaitJobStartsMessage, {}, Duration::max(),
      [this, alive = std::weak_ptr(alive_)](const auto& answer) {
        if (!alive.expired()) startsReported(answer);
      },
      JobHostClient::Room::kLong);
}

void EmbeddedJobs::startsReported(const Result<JobHostClient::Answer>& answer) {
  isAwaitingStarts_ = false;
  if (startObservers_.empty()) return;
  const Dictionary* started = answer ? answer->value.dictionary() : nullptr;
  if (!started) {
    // The host is absent, or refuses this caller, or is an older one that does not know the
    // request.
    isAwaitingStarts_ = true;
    startsRetry_ = client_.loop().startTimer(kStartsRetryInterval, RunLoop::Repeat::kOnce, [this] {
      isAwaitingStarts_ = false;
      awaitStarts();
    });
    return;
  }
  awaitStarts();
  for (const auto& [label, process] : *started) {
    startObservers_.report(
        label, process.integer() == kNoProcess ? Start::kProgramChanged : Start::kStarted);
  }
}

}  // namespace platform
