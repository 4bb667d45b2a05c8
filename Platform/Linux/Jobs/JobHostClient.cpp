#include "Platform/Linux/Jobs/JobHostClient.h"

#include <cerrno>
#include <tuple>
#include <utility>

#include "Platform/Linux/Jobs/JobHostMessages.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// How often a host that is not there is looked for.
constexpr Duration kLookEvery = 50ms;

// Somebody holds the socket: to start another host would be no help.
Error silent(const std::string& socket) {
  return Error{ErrorCode::kSystem, ETIMEDOUT,
               "the job host at " + socket + " is there, but does not answer"};
}

Error unreachable(const PeerConnectFailure& failure, const std::string& socket) {
  if (failure.kind == PeerConnectFailure::Kind::kTimedOut) return silent(socket);
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

std::expected<void, PeerConnectFailure> JobHostClient::connectOnce(Duration timeout) {
  auto connected = transport_.connect(
      socket_, {.timeout = timeout, .whileWaiting = WhileWaiting::kServeNothing});
  if (!connected) {
    isSilent_ = false;
    if (connected.error().kind == PeerConnectFailure::Kind::kTimedOut) noteSilence();
    return std::unexpected(std::move(connected.error()));
  }
  isSilent_ = false;
  hasWaitedInVain_ = false;
  connection_ = *std::move(connected);
  connection_->setHandlers({.message = {}, .death = [this](const Error&) { dropConnection(); }});
  return {};
}

Result<void> JobHostClient::connect(Instant deadline) {
  for (;;) {
    const auto connected = connectOnce();
    if (connected) return {};
    const bool canPass = mayPass(connected.error());
    if (!canPass || hasWaitedInVain_ || loop_.now() >= deadline) {
      hasWaitedInVain_ = canPass;
      if (canPass || isSilent_) noteMissed();
      return std::unexpected(unreachable(connected.error(), socket_));
    }
    loop_.sleepFor(kLookEvery);
  }
}

// A connection that is closed completes nothing any more, so the next host is asked for whatever
// this one still owed.
void JobHostClient::dropConnection() {
  connection_.reset();
  isSilent_ = false;
  for (auto& [id, request] : requests_) {
    if (!request.nextTry) repeat(id);
  }
  if (isMissed_) lookForReturnLater();  // What was to tell of its return has gone with it.
}

void JobHostClient::noteSilence() {
  isSilent_ = true;
  lastLook_ = loop_.now();
}

// Also an end is one: there may be another host by now.
bool JobHostClient::givesSign(Duration timeout) {
  const auto sign = connection_->call(kMayChangeJobsMessage, {}, timeout);
  if (sign || sign.error().name != kNSPortTimeoutException) return true;
  noteSilence();
  return false;
}

// Whether a host that was silent may be asked again. The loop need not have turned meanwhile: one
// evaluation asks for many jobs, and a host may go on in the middle of it.
bool JobHostClient::showsLife() {
  if (loop_.now() - lastLook_ < kSilentHostPause) return false;
  if (connection_) {
    if (givesSign(kLookTime)) isSilent_ = false;
  } else {
    std::ignore = connectOnce(kLookTime);
  }
  return !isSilent_;
}

// The next question would be one more that is not answered.
void JobHostClient::lookForLife() {
  if (givesSign(kLifeSignTime)) return;
  connection_->callAsync(kMayChangeJobsMessage, {}, Duration::max(),
                         [this](const PeerResult& sign) {
                           if (sign || sign.error().name != kNSPortTimeoutException)
                             isSilent_ = false;
                         });
}

void JobHostClient::setReturnHandler(std::function<void()> onReturn) {
  onReturn_ = std::move(onReturn);
  if (onReturn_) return;
  isMissed_ = false;
  nextLook_.reset();
}

void JobHostClient::noteMissed() {
  if (!onReturn_ || isMissed_) return;
  isMissed_ = true;
  lookForReturnLater();
}

void JobHostClient::lookForReturnLater() {
  nextLook_ =
      loop_.startTimer(kSilentHostPause, RunLoop::Repeat::kOnce, [this] { lookForReturn(); });
}

// A host that is there and silent is asked once, and tells of its return by its answer.
void JobHostClient::lookForReturn() {
  if (!connection_ && !connectOnce(kLookTime)) return lookForReturnLater();
  nextLook_.reset();
  connection_->callAsync(kMayChangeJobsMessage, {}, Duration::max(),
                         [this](const PeerResult& sign) {
                           if (!isMissed_) return;
                           if (!sign) return lookForReturnLater();
                           returned();
                         });
}

void JobHostClient::returned() {
  isSilent_ = false;
  isMissed_ = false;
  // Not from inside the answer: who is told asks the host at once, and may find it gone again.
  nextLook_ = loop_.startTimer(Duration::zero(), RunLoop::Repeat::kOnce, [this] {
    const auto onReturn = onReturn_;  // It may replace itself.
    onReturn();
  });
}

Result<JobHostClient::Answer> JobHostClient::call(std::string_view selector, const Array& arguments,
                                                  Duration timeout) {
  if (isSilent_ && !showsLife()) {
    noteMissed();
    return std::unexpected(silent(socket_));
  }
  Instant deadline = loop_.now() + patience_;
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
    if (hasEnded) dropConnection();
    if (result.error().name == kNSPortTimeoutException) lookForLife();
    // On an old connection the host may have ended long ago: the next one is owed a try.
    if (!hasEnded || (repeated && isFresh && loop_.now() >= deadline)) {
      if (hasEnded || isSilent_) noteMissed();
      return std::unexpected(unanswered(result.error(), socket_, timeout));
    }
    // The next host has its time to come from here on, however long this one took to answer.
    if (!repeated) deadline = loop_.now() + kPatience;
    if (isFresh) loop_.sleepFor(kLookEvery);
    repeated = true;
  }
}

void JobHostClient::callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                              Completion completion) {
  const RequestId id = ++lastRequest_;
  requests_.emplace(id, Request{std::string(selector), arguments, timeout, std::move(completion),
                                loop_.now() + patience_, false, nullptr});
  tryLater(id, Duration::zero());
}

void JobHostClient::tryLater(RequestId id, Duration delay) {
  requests_.at(id).nextTry =
      loop_.startTimer(delay, RunLoop::Repeat::kOnce, [this, id] { ask(id); });
}

void JobHostClient::ask(RequestId id) {
  Request& request = requests_.at(id);
  if (!connection_) {
    if (const auto connected = connectOnce(); !connected) {
      if (mayPass(connected.error()) && loop_.now() < request.deadline) {
        return tryLater(id, kLookEvery);
      }
      return complete(id, std::unexpected(unreachable(connected.error(), socket_)));
    }
  }
  request.nextTry.reset();
  connection_->callAsync(request.selector, request.arguments, request.timeout,
                         [this, id](PeerResult result) { answered(id, std::move(result)); });
}

void JobHostClient::answered(RequestId id, PeerResult result) {
  const Request& request = requests_.at(id);
  if (result) return complete(id, Answer{*std::move(result), request.wasRepeated});
  const bool hasEnded = result.error().name == kNSInvalidSendPortException;
  // The connection stays until it reports its death: others may have yet to be told.
  if (hasEnded && !(request.wasRepeated && loop_.now() >= request.deadline)) return repeat(id);
  complete(id, std::unexpected(unanswered(result.error(), socket_, request.timeout)));
}

void JobHostClient::repeat(RequestId id) {
  Request& request = requests_.at(id);
  if (!request.wasRepeated) request.deadline = loop_.now() + kPatience;
  request.wasRepeated = true;
  tryLater(id, kLookEvery);
}

void JobHostClient::complete(RequestId id, Result<Answer> answer) {
  auto done = requests_.extract(id);
  done.mapped().completion(std::move(answer));  // It may destroy this.
}

}  // namespace platform
