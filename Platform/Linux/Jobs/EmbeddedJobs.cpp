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

// A host that answers later is stuck. Starting a program can take as long as a disk takes to wake.
constexpr Duration kJobsAnswerTime = 30s;

// A removal takes as long as the job's processes are given to end. Nobody waits longer than this,
// also not for a job that is never killed.
constexpr std::int64_t kLongestExitTimeOut = 3600;

NSError launchdErrorOf(LaunchdError code, std::string text) {
  return NSError{kCFErrorDomainLaunchd, static_cast<int>(code), std::move(text)};
}

NSError launchdErrorOf(const Error& error) {
  // Not unavailable, which who is told takes for "not running".
  if (error.osError == ETIMEDOUT) return launchdErrorOf(LaunchdError::kInternal, describe(error));
  switch (error.code) {
    case ErrorCode::kDenied:
      return launchdErrorOf(LaunchdError::kNotAuthorized, describe(error));
    case ErrorCode::kInvalid:  // It could not be sent.
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

// A removal that was asked for twice found its job only the first time.
bool isDone(const NSError& error, bool wasRepeated) {
  return wasRepeated && error.code == static_cast<int>(LaunchdError::kNoSuchJob);
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
  const auto answer = ask(kSubmitJobMessage, Array{job}, kJobsAnswerTime);
  if (!answer) return std::unexpected(answer.error());
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  return {};
}

std::expected<void, NSError> EmbeddedJobs::SMJobRemove(std::string_view domain,
                                                       std::string_view label,
                                                       const AuthorizationRef*, bool wait) {
  if (auto checked = checkDomain(domain); !checked) return checked;
  const Duration time = wait ? removalTime(label) : kJobsAnswerTime;
  const auto answer = ask(kRemoveJobMessage, Array{label, wait}, time);
  if (!answer) return std::unexpected(answer.error());
  const auto failure = failureIn(answer->value);
  if (!failure || isDone(*failure, answer->wasRepeated)) return {};
  return std::unexpected(*failure);
}

Value EmbeddedJobs::SMJobCopyDictionary(std::string_view domain, std::string_view label) {
  if (!checkDomain(domain)) return {};
  return copyJob(label).value_or(Value(Dictionary()));
}

std::expected<Value, NSError> EmbeddedJobs::copyJob(std::string_view label) {
  const auto answer = ask(kCopyJobMessage, Array{label}, kJobsAnswerTime);
  if (!answer) return std::unexpected(answer.error());
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  if (!answer->value.isNil() && !answer->value.dictionary())
    return std::unexpected(malformedAnswer());
  return answer->value;
}

std::expected<Dictionary, NSError> EmbeddedJobs::copyJobStates() {
  const auto answer = ask(kCopyJobStatesMessage, {}, kJobsAnswerTime);
  if (!answer) return std::unexpected(answer.error());
  if (auto failure = failureIn(answer->value)) return std::unexpected(*std::move(failure));
  if (!answer->value.dictionary()) return std::unexpected(malformedAnswer());
  return *answer->value.dictionary();
}

void EmbeddedJobs::removeAsync(std::string_view label, Removed removed) {
  client_.callAsync(kRemoveJobMessage, Array{label, true}, removalTime(label),
                    [removed = std::move(removed)](Result<JobHostClient::Answer> answer) mutable {
                      if (!answer) return removed(std::unexpected(launchdErrorOf(answer.error())));
                      const auto failure = failureIn(answer->value);
                      if (!failure || isDone(*failure, answer->wasRepeated)) return removed({});
                      removed(std::unexpected(*failure));
                    });
}

// What a removal that waits may take at the most.
Duration EmbeddedJobs::removalTime(std::string_view label) {
  const auto job = copyJob(label);
  const auto exitTimeOut = job ? (*job)["ExitTimeOut"].integer() : std::nullopt;
  std::int64_t seconds = exitTimeOut.value_or(kDefaultExitTimeOut);
  if (seconds <= 0) seconds = kLongestExitTimeOut;  // Never killed.
  return std::chrono::seconds(std::min(seconds, kLongestExitTimeOut)) + kJobsAnswerTime;
}

}  // namespace platform
