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

std::expected<void, NSError> outcomeOfRemoval(const Result<JobHostClient::Answer>& answer) {
  if (!answer) return std::unexpected(launchdErrorOf(answer.error()));
  const auto failure = failureIn(answer->value);
  if (!failure || isDone(*failure, answer->wasRepeated)) return {};
  return std::unexpected(*failure);
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

}  // namespace

std::expected<JobHostClient::Answer, NSError> EmbeddedJobs::ask(std::string_view selector,
                                                                const Array& arguments,
                                                                Duration timeout) {
  auto answer = client_.call(selector, arguments, timeout);
  if (!answer) return std::unexpected(launchdErrorOf(answer.error()));
  return *std::move(answer);
}

std::expected<void, NSError> EmbeddedJobs::SMJobSubmit(std::string_view domain, const Value& job,
                                                       const AuthorizationRef*) {
  if (auto checked = checkDomain(domain); !checked) return checked;
  const auto answer = ask(kSubmitJobMessage, Array{job}, kJobsAnswerTimeOut);
  if (!answer) return std::unexpected(answer.error());
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  return {};
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
  const auto answer = ask(kCopyJobMessage, Array{label}, kJobsAnswerTimeOut);
  if (!answer) return std::unexpected(answer.error());
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  if (!answer->value.isNil() && !answer->value.dictionary())
    return std::unexpected(malformedAnswer());
  return answer->value;
}

std::expected<Dictionary, NSError> EmbeddedJobs::copyJobStates() {
  const auto answer = ask(kCopyJobStatesMessage, {}, kJobsAnswerTimeOut);
  if (!answer) return std::unexpected(answer.error());
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  if (!answer->value.dictionary()) return std::unexpected(malformedAnswer());
  return *answer->value.dictionary();
}

// The host gets two requests at once. The answer to the first, a copy of the job, limits the
// second.
void EmbeddedJobs::removeJob(std::string_view domain, std::string_view label,
                             const AuthorizationRef*, Removed removed) {
  if (auto checked = checkDomain(domain); !checked) {
    client_.loop().post([alive = std::weak_ptr(alive_), removed = std::move(removed),
                         error = std::move(checked.error())]() mutable {
      if (!alive.expired()) removed(std::unexpected(std::move(error)));
    });
    return;
  }
  auto finish = [alive = std::weak_ptr(alive_), removed = std::move(removed)](
                    const Result<JobHostClient::Answer>& answer) mutable {
    if (!alive.expired()) removed(outcomeOfRemoval(answer));
  };
  if (client_.isHung()) {
    removeWhenHostAnswers(std::string(label), std::move(finish));
    return;
  }
  const auto removal = std::make_shared<JobHostClient::RequestId>();
  client_.callAsync(kCopyJobMessage, Array{label}, kJobsAnswerTimeOut,
                    [this, alive = std::weak_ptr(alive_), removal](const auto& answer) {
                      if (alive.expired()) return;
                      client_.limit(*removal, removalTime(answer ? answer->value : Value()));
                    });
  *removal = client_.callAsync(kRemoveJobMessage, Array{label, true},
                               removalTime(Dictionary{{"ExitTimeOut", 0}}), std::move(finish));
}

// A host that is known to hang has had its time. It must not find the removal when it goes on, long
// after this has failed.
void EmbeddedJobs::removeWhenHostAnswers(const std::string& label,
                                         JobHostClient::Completion finish) {
  client_.callAsync(kCopyJobMessage, Array{label}, JobHostClient::kPingTimeOut,
                    [this, alive = std::weak_ptr(alive_), label,
                     finish = std::move(finish)](Result<JobHostClient::Answer> answer) mutable {
                      if (alive.expired()) return;
                      if (!answer) return finish(std::move(answer));
                      client_.callAsync(kRemoveJobMessage, Array{label, true},
                                        removalTime(answer->value), std::move(finish));
                    });
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
  client_.callAsync(kAwaitJobStartsMessage, {}, Duration::max(),
                    [this, alive = std::weak_ptr(alive_)](const auto& answer) {
                      if (!alive.expired()) startsReported(answer);
                    });
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
  for (const auto& [label, process] : *started) startObservers_.report(label);
}

}  // namespace platform
