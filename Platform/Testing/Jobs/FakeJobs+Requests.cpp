// The calls that do not block, as requests that the host serves in their order.

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "Platform/Testing/Jobs/FakeJobs.h"

namespace platform {

template <class Call, class Answer>
void FakeJobs::answerLater(Call call, Answer answer) {
  loop_.post([call = std::move(call), answer = std::move(answer)]() mutable {
    (*call)(std::move(answer));
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

void FakeJobs::copyStatesAfter(std::string_view label, Copied copied) {
  constexpr std::size_t kPage = 2;
  const auto call = std::make_shared<Copied>(std::move(copied));
  take({.giveUpAt = {},
        .serve =
            [this, label = std::string(label), call] {
              Dictionary states;
              for (auto job = jobs_.upper_bound(label); job != jobs_.end(); ++job) {
                if (states.size() == kPage) break;
                Dictionary state;
                addState(state, job->second, JobHistoryDetail::kCounts);
                states.set(job->first, std::move(state));
              }
              answerLater(call, callerAllowed_ ? Value(std::move(states)) : Value());
              return true;
            },
        .fail = [this, call](const NSError&) { answerLater(call, Value()); }});
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

}  // namespace platform
