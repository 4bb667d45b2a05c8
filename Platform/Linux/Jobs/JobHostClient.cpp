#include "Platform/Linux/Jobs/JobHostClient.h"

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include "Platform/Linux/Jobs/JobHostMessages.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// How often to try to connect to an absent host.
constexpr Duration kReconnectInterval = 50ms;

// A process holds the socket, so starting another host would not help.
Error hung(const std::string& socket) {
  return Error{ErrorCode::kSystem, ETIMEDOUT,
               "the job host at " + socket + " is there, but does not answer"};
}

Error unreachable(const PeerConnectFailure& failure, const std::string& socket) {
  if (failure.kind == PeerConnectFailure::Kind::kTimedOut) return hung(socket);
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

// Whether the host may be about to start or to end. A denied permission does not change by itself.
bool isTransient(const PeerConnectFailure& failure) {
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
      socket_,
      {.timeout = timeout, .whileWaiting = WhileWaiting::kServeNothing, .servers = servers_});
  if (!connected) {
    isHung_ = false;
    if (connected.error().kind == PeerConnectFailure::Kind::kTimedOut) noteHung();
    return std::unexpected(std::move(connected.error()));
  }
  isHung_ = false;
  isKnownAbsent_ = false;
  connection_ = *std::move(connected);
  connection_->setHandlers({.message = {}, .death = [this](const Error&) { dropConnection(); }});
  return {};
}

Result<void> JobHostClient::connect(Instant deadline) {
  for (;;) {
    const auto connected = connectOnce(std::min(kConnectTimeOut, longestWait_));
    if (connected) return {};
    const bool mayReturn = isTransient(connected.error());
    if (!mayReturn || isKnownAbsent_ || loop_.now() >= deadline) {
      isKnownAbsent_ = mayReturn;
      if (mayReturn || isHung_) awaitReturn();
      return std::unexpected(unreachable(connected.error(), socket_));
    }
    loop_.sleepFor(kReconnectInterval);
  }
}

// A closed connection completes no call, so repeat all of its unanswered requests with the next
// host.
void JobHostClient::dropConnection() {
  connection_.reset();
  isHung_ = false;
  isPinging_ = false;
  usualUnderWay_ = longUnderWay_ = 0;
  for (const auto& [id, request] : requests_) {
    if (!waiting_.contains(id)) repeat(id);
  }
  if (isReturnAwaited_)
    probeForReturnLater();  // The call of probeForReturn() ended with the connection.
}

void JobHostClient::noteHung() {
  isHung_ = true;
  lastProbe_ = loop_.now();
  if (!connection_) return;
  for (const RequestId id : std::exchange(waiting_, {})) failSoon(id, hung(socket_));
}

// An end of the host also counts as an answer: there may be a new host by now.
bool JobHostClient::ping(Duration timeout) {
  const auto answer = connection_->call(kMayChangeJobsMessage, {}, timeout);
  if (answer || answer.error().name != kNSPortTimeoutException) return true;
  noteHung();
  return false;
}

// Whether the hung host may get a request again. The loop need not have turned since: one
// evaluation makes many calls, and a host may go on in the middle of it.
bool JobHostClient::probeHungHost() {
  if (loop_.now() - lastProbe_ < kProbeInterval) return false;
  if (connection_) {
    if (ping(kProbeTimeOut)) isHung_ = false;
  } else {
    std::ignore = connectOnce(kProbeTimeOut);
  }
  return !isHung_;
}

// If the ping fails, the next call would time out too. A second ping without a time-out tells when
// the host answers again.
void JobHostClient::pingAfterTimeOut() {
  if (!ping(std::min(kPingTimeOut, longestWait_))) pingUntilAnswered();
}

void JobHostClient::pingUntilAnswered() {
  connection_->callAsync(kMayChangeJobsMessage, {}, Duration::max(),
                         [this](const MessageResult& answer) {
                           if (answer || answer.error().name != kNSPortTimeoutException)
                             isHung_ = false;
                         });
}

void JobHostClient::setReturnHandler(std::function<void()> onReturn) {
  onReturn_ = std::move(onReturn);
  if (onReturn_) return;
  isReturnAwaited_ = false;
  nextProbe_.reset();
}

void JobHostClient::awaitReturn() {
  if (!onReturn_ || isReturnAwaited_) return;
  isReturnAwaited_ = true;
  probeForReturnLater();
}

void JobHostClient::probeForReturnLater() {
  nextProbe_ =
      loop_.startTimer(kProbeInterval, RunLoop::Repeat::kOnce, [this] { probeForReturn(); });
}

// A connected host gets one ping, and its answer tells of the return.
void JobHostClient::probeForReturn() {
  if (mustProbe()) {
    return probeHost([this](bool mayConnect) {
      if (!isReturnAwaited_) return;
      if (mayConnect) return probeForReturn();
      probeForReturnLater();
    });
  }
  if (!connection_ && !connectOnce(kProbeTimeOut)) return probeForReturnLater();
  nextProbe_.reset();
  connection_->callAsync(kMayChangeJobsMessage, {}, Duration::max(),
                         [this](const MessageResult& answer) {
                           if (!isReturnAwaited_) return;
                           if (!answer) return probeForReturnLater();
                           hostReturned();
                         });
}

void JobHostClient::hostReturned() {
  isHung_ = false;
  isReturnAwaited_ = false;
  // Don't call from inside the answer: the handler calls the host at once, and may find it gone
  // again.
  nextProbe_ = loop_.startTimer(Duration::zero(), RunLoop::Repeat::kOnce, [this] {
    const auto onReturn = onReturn_;  // The handler may replace itself.
    onReturn();
  });
}

Result<JobHostClient::Answer> JobHostClient::call(std::string_view selector, const Array& arguments,
                                                  Duration timeout) {
  if (isHung_ && !probeHungHost()) {
    awaitReturn();
    return std::unexpected(hung(socket_));
  }
  timeout = std::min(timeout, longestWait_);
  Instant deadline = loop_.now() + std::min(restartTimeOut_, longestWait_);
  bool repeated = false;
  for (;;) {
    const bool isFresh = !connection_;
    if (isFresh) {
      if (auto connected = connect(deadline); !connected) {
        return std::unexpected(std::move(connected.error()));
      }
    }
    MessageResult result = connection_->call(selector, arguments, timeout);
    if (result) return Answer{*std::move(result), repeated};
    const bool hasEnded = result.error().name == kNSInvalidSendPortException;
    if (hasEnded) dropConnection();
    if (result.error().name == kNSPortTimeoutException) pingAfterTimeOut();
    // On an old connection the host may have ended long ago, so try the next host.
    if (!hasEnded || (repeated && isFresh && loop_.now() >= deadline)) {
      if (hasEnded || isHung_) awaitReturn();
      return std::unexpected(unanswered(result.error(), socket_, timeout));
    }
    // The restart time-out counts from here, however long the last host took.
    if (!repeated) deadline = loop_.now() + std::min(kRestartTimeOut, longestWait_);
    if (isFresh) loop_.sleepFor(kReconnectInterval);
    repeated = true;
  }
}

// Without blocking.

// A host that is known to hang has had its time. It must not find the request when it goes on, long
// after this has failed.
JobHostClient::RequestId JobHostClient::callAsync(std::string_view selector, const Array& arguments,
                                                  Duration timeout, Completion completion,
                                                  Room room) {
  const RequestId id = ++lastRequest_;
  requests_.emplace(id, Request{std::string(selector), arguments, timeout, std::move(completion),
                                room, loop_.now() + restartTimeOut_, false, nullptr});
  if (isHung_ && connection_) {
    awaitReturn();
    failSoon(id, hung(socket_));
  } else {
    waiting_.insert(id);
    sendWaiting();
  }
  return id;
}

void JobHostClient::limit(RequestId id, Duration timeout) {
  const auto found = requests_.find(id);
  if (found == requests_.end() || found->second.limitTimer) return;
  if (waiting_.contains(id)) {
    found->second.timeout = timeout;
    return;
  }
  found->second.limitTimer = loop_.startTimer(timeout, RunLoop::Repeat::kOnce, [this, id, timeout] {
    complete(id, std::unexpected(
                     unanswered(NSException{kNSPortTimeoutException, {}, {}}, socket_, timeout)));
  });
}

// While the host is pinged, it may be about to count as hung.
void JobHostClient::sendWaiting() {
  if (waiting_.empty() || connectTimer_ || isProbed_ || isPinging_) return;
  if (!connection_) return connectLater(Duration::zero());
  for (auto next = waiting_.begin(); next != waiting_.end();) {
    const RequestId id = *next;
    const Request& request = requests_.at(id);
    if (hasRoomFor(request)) {
      next = waiting_.erase(next);
      send(id);
    } else if (request.room == Room::kUsual) {
      return;  // No later request of its label may come first.
    } else {
      ++next;
    }
  }
}

bool JobHostClient::hasRoomFor(const Request& request) const {
  return request.room == Room::kUsual ? usualUnderWay_ < kMaximumUsual
                                      : longUnderWay_ < kMaximumLong;
}

void JobHostClient::send(RequestId id) {
  const Request& request = requests_.at(id);
  ++(request.room == Room::kUsual ? usualUnderWay_ : longUnderWay_);
  connection_->callAsync(request.selector, request.arguments, request.timeout,
                         [this, id, room = request.room](MessageResult result) {
                           answered(id, room, std::move(result));
                         });
}

void JobHostClient::connectLater(Duration delay) {
  connectTimer_ = loop_.startTimer(delay, RunLoop::Repeat::kOnce, [this] { connectForWaiting(); });
}

void JobHostClient::connectForWaiting() {
  connectTimer_.reset();
  if (mustProbe() && !waiting_.empty()) {
    isProbed_ = true;
    return probeHost([this](bool mayConnect) {
      isProbed_ = false;
      if (mayConnect || connection_) return connectForWaiting();
      couldNotConnect({PeerConnectFailure::Kind::kTimedOut, hung(socket_)});
    });
  }
  if (!connection_ && !waiting_.empty()) {
    if (const auto connected = connectOnce(kProbeTimeOut); !connected) {
      return couldNotConnect(connected.error());
    }
  }
  sendWaiting();
}

void JobHostClient::probeHost(Probed answer) {
  const ProbeId id = ++lastProbeId_;
  probes_.emplace(id, PendingProbe{std::move(answer),
                                   loop_.startTimer(kProbeAnswerTimeOut, RunLoop::Repeat::kOnce,
                                                    [this, id] { probeIsLate(id); })});
  probe_([this, isAlive = std::weak_ptr(isAlive_), id](bool mayConnect) {
    if (!isAlive.expired()) probeHasAnswered(id, mayConnect);
  });
}

// Requests must not depend on what else the probe's thread does. Until the late answer has come
// this connects itself, and that thread gets no further probes, which it would do one by one.
void JobHostClient::probeIsLate(ProbeId id) {
  auto probe = probes_.extract(id);
  ++lateProbes_;
  probe.mapped().answer(true);
}

void JobHostClient::probeHasAnswered(ProbeId id, bool mayConnect) {
  auto probe = probes_.extract(id);
  if (!probe) {
    --lateProbes_;
    return;
  }
  if (mayConnect) isHung_ = false;
  probe.mapped().answer(mayConnect);
}

// Fails the requests that have waited long enough, and lets the others wait on.
void JobHostClient::couldNotConnect(const PeerConnectFailure& failure) {
  const bool isAbsent = isTransient(failure);
  const bool mayChange = isAbsent || isHung_;
  bool hasFailed = false;
  for (auto next = waiting_.begin(); next != waiting_.end();) {
    const RequestId id = *next;
    const Request& request = requests_.at(id);
    const bool mayWait = loop_.now() < request.deadline && !(isAbsent && isKnownAbsent_);
    if (mayChange && mayWait) {
      ++next;
      continue;
    }
    if (mayChange && request.room == Room::kUsual) awaitReturn();
    failSoon(id, unreachable(failure, socket_));
    next = waiting_.erase(next);
    hasFailed = true;
  }
  if (hasFailed) isKnownAbsent_ = isAbsent;
  if (!waiting_.empty()) connectLater(isAbsent ? kReconnectInterval : kProbeInterval);
}

void JobHostClient::answered(RequestId id, Room room, MessageResult result) {
  --(room == Room::kUsual ? usualUnderWay_ : longUnderWay_);
  const bool hasEnded = !result && result.error().name == kNSInvalidSendPortException;
  const bool hasTimedOut = !result && result.error().name == kNSPortTimeoutException;
  if (room == Room::kUsual && hasTimedOut) pingAsync();
  // Keep the connection until it reports its death: other requests may still be completed.
  if (hasEnded && !connectTimer_) connectLater(kReconnectInterval);
  sendWaiting();
  const auto found = requests_.find(id);
  if (found == requests_.end()) return;  // Its limit() has completed it.
  const Request& request = found->second;
  if (result) return complete(id, Answer{*std::move(result), request.wasRepeated});
  if (hasEnded && !(request.wasRepeated && loop_.now() >= request.deadline)) return repeat(id);
  if (room == Room::kUsual && hasEnded) awaitReturn();
  complete(id, std::unexpected(unanswered(result.error(), socket_, request.timeout)));
}

// Tells a slow host from one that hangs.
void JobHostClient::pingAsync() {
  if (isPinging_ || isHung_ || !connection_) return;
  isPinging_ = true;
  connection_->callAsync(kMayChangeJobsMessage, {}, kPingTimeOut,
                         [this](const MessageResult& answer) {
                           isPinging_ = false;
                           if (answer || answer.error().name != kNSPortTimeoutException) {
                             return sendWaiting();
                           }
                           noteHung();
                           pingUntilAnswered();
                           awaitReturn();
                         });
}

// With the next host.
void JobHostClient::repeat(RequestId id) {
  Request& request = requests_.at(id);
  if (!request.wasRepeated) request.deadline = loop_.now() + kRestartTimeOut;
  request.wasRepeated = true;
  waiting_.insert(id);
  if (!connectTimer_) connectLater(kReconnectInterval);
}

void JobHostClient::failSoon(RequestId id, Error error) {
  requests_.at(id).limitTimer = loop_.startTimer(
      Duration::zero(), RunLoop::Repeat::kOnce,
      [this, id, error = std::move(error)] { complete(id, std::unexpected(error)); });
}

void JobHostClient::complete(RequestId id, Result<Answer> answer) {
  auto done = requests_.extract(id);
  waiting_.erase(id);
  done.mapped().completion(std::move(answer));  // The completion may destroy this.
}

}  // namespace platform
