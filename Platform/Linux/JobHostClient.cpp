#include "Platform/Linux/JobHostClient.h"

#include <cerrno>
#include <utility>

namespace platform {
namespace {

using namespace std::chrono_literals;

// How often a host that is not there is looked for.
constexpr Duration kLookEvery = 50ms;

Error unreachable(const PeerConnectFailure& failure) {
  Error error = failure.error;
  error.context = "the job host can't be reached: " + error.context;
  switch (failure.kind) {
    case PeerConnectFailure::Kind::kNobodyThere:
      error.code = ErrorCode::kNotFound;
      break;
    case PeerConnectFailure::Kind::kRefused:
      error.code = ErrorCode::kDenied;
      break;
    case PeerConnectFailure::Kind::kTimedOut:
    case PeerConnectFailure::Kind::kSystem:
      error.code = ErrorCode::kSystem;
      break;
  }
  return error;
}

// A host that is about to start or to end; one that keeps us out stays as it is.
bool mayPass(const PeerConnectFailure& failure) {
  if (failure.kind == PeerConnectFailure::Kind::kNobodyThere) return true;
  return failure.kind == PeerConnectFailure::Kind::kRefused && failure.error.osError != EACCES &&
         failure.error.osError != EPERM;
}

Error unanswered(const NSException& exception, const std::string& socket, Duration timeout) {
  if (exception.name == kNSPortTimeoutException) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout).count();
    return Error{
        ErrorCode::kSystem, ETIMEDOUT,
        "the job host at " + socket + " did not answer within " + std::to_string(seconds) + " s"};
  }
  if (exception.name == kNSInvalidSendPortException) {
    return Error{ErrorCode::kNotFound, ECONNRESET,
                 "the job host at " + socket + " ended before it answered"};
  }
  return Error{ErrorCode::kInvalid, 0,
               "the job host at " + socket + " could not be asked: " + exception.reason};
}

}  // namespace

Result<void> JobHostClient::connect(Instant deadline) {
  for (;;) {
    auto connected =
        transport_.connect(socket_, {.timeout = 5s, .whileWaiting = WhileWaiting::kServeNothing});
    if (connected) {
      connection_ = *std::move(connected);
      return {};
    }
    if (!mayPass(connected.error()) || loop_.now() >= deadline) {
      return std::unexpected(unreachable(connected.error()));
    }
    loop_.sleepFor(kLookEvery);
  }
}

Result<JobHostClient::Answer> JobHostClient::call(std::string_view selector, const Array& arguments,
                                                  Duration timeout) {
  const Instant deadline = loop_.now() + patience_;
  bool repeated = false;
  for (;;) {
    const bool isFresh = !connection_;
    if (isFresh) {
      if (auto connected = connect(deadline); !connected) {
        return std::unexpected(std::move(connected.error()));
      }
    }
    PeerResult result = connection_->call(selector, arguments, timeout);
    if (result) return Answer{*std::move(result), repeated};
    const bool hasEnded = result.error().name == kNSInvalidSendPortException;
    if (hasEnded) connection_.reset();
    // On an old connection the host may have ended long ago: the next one is owed a try.
    if (!hasEnded || (isFresh && loop_.now() >= deadline)) {
      return std::unexpected(unanswered(result.error(), socket_, timeout));
    }
    if (isFresh) loop_.sleepFor(kLookEvery);
    repeated = true;
  }
}

void JobHostClient::callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                              std::move_only_function<void(Result<Value>)> completion) {
  if (!connection_) {
    if (auto connected = connect(loop_.now() + patience_); !connected) {
      return completion(std::unexpected(std::move(connected.error())));
    }
  }
  connection_->callAsync(
      selector, arguments, timeout,
      [this, timeout, completion = std::move(completion)](PeerResult result) mutable {
        if (result) return completion(*std::move(result));
        completion(std::unexpected(unanswered(result.error(), socket_, timeout)));
      });
}

}  // namespace platform
