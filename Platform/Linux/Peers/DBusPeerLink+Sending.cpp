// Outgoing messages: calls, one-way messages and answers.

#include <algorithm>
#include <string>
#include <utility>

#include <unistd.h>

#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/RunLoops/TimerQueue.h"

namespace platform {

namespace {

// The interval at which a blocking call checks whether the peer has read the files before it.
constexpr Duration kFileCheckInterval = std::chrono::milliseconds(2);

Error noDescriptors() {
  return {ErrorCode::kInvalid, 0,
          "a large message or an endpoint to a peer that takes no descriptors"};
}

}  // namespace

bool DBusPeerLink::awaitWelcome(Instant deadline) {
  while (!dbus_connection_get_is_authenticated(connection_.get())) {
    if (!isConnected() || !waitOnce(deadline)) return false;
  }
  authenticated_ = true;
  EncodedMessage ping{
      UniqueDBusMessage(dbus_message_new_method_call(nullptr, "/", DBUS_INTERFACE_PEER, "Ping")),
      kPeerMessageHeaderBytes, 0};
  if (!ping.message || !isConnected()) return false;
  const auto serial = transmit(ping);
  if (!serial) return false;
  outstanding_[*serial];
  const MessageResult result = awaitAnswer(*serial, deadline, WhileWaiting::kServeNothing);
  outstanding_.erase(*serial);
  if (!inbox_.empty()) sources_->scheduleDispatch();
  return result.has_value();
}

MessageResult DBusPeerLink::call(std::string_view selector, const Array& arguments,
                                 Duration timeout) {
  const auto self = shared_from_this();
  const Instant deadline = instantAfter(loop_.now(), timeout);
  if (!isConnected()) return raisedGone();
  auto encoded = encodeMessage(selector, arguments, PeerMessageKind::kTwoWay, contents_);
  if (!encoded) return raised(kNSInvalidArgumentException, describe(encoded.error()));
  if (outstanding_.size() >= kMaxPeerCallsAwaitingReply) {
    return raised(kNSInvalidArgumentException, "Too many calls await their answer.");
  }
  while (!hasRoom(*encoded)) {
    if (!isConnected()) return raisedGone();
    if (!waitForRoom(deadline)) return raisedNoAnswer();
  }
  if (!canBeSent(*encoded)) return raised(kNSInvalidArgumentException, describe(noDescriptors()));
  auto serial = transmit(*encoded);
  if (!serial) return raisedGone();
  encoded->message.reset();
  outstanding_[*serial];
  MessageResult result = awaitAnswer(*serial, deadline, whileWaiting_);
  outstanding_.erase(*serial);
  if (!ended_ && !inbox_.empty()) sources_->scheduleDispatch();
  limitReading();
  return result;
}

MessageResult DBusPeerLink::awaitAnswer(std::uint32_t serial, Instant deadline,
                                        WhileWaiting whileWaiting) {
  for (;;) {
    if (!ended_) collect();
    const auto found = outstanding_.find(serial);
    if (found != outstanding_.end() && found->second.answer) {
      return decodeAnswer(found->second.answer.get(), contents_, fileLimit());
    }
    if (ended_ || closed_) return raisedGone();
    if (loop_.now() >= deadline) return raisedNoAnswer();
    if (whileWaiting == WhileWaiting::kServe && serveOneRequest()) continue;
    if (!isConnected()) {
      sources_->scheduleDispatch();  // The dispatch finds that it is dead.
      return raisedGone();
    }
    waitOnce(deadline);
  }
}

bool DBusPeerLink::waitForRoom(Instant deadline) {
  if (dbus_connection_get_outgoing_size(connection_.get()) > 0) return waitOnce(deadline);
  // Only files in the socket take the room, and no event reports when the peer reads them.
  waitOnce(std::min(deadline, instantAfter(loop_.now(), kFileCheckInterval)));
  return loop_.now() < deadline;
}

bool DBusPeerLink::waitOnce(Instant deadline) {
  const Duration left = deadline - loop_.now();
  if (left <= Duration::zero()) return false;
  switch (sources_->handleWithin(left)) {
    case DBusSources::Handled::kSome:
      return true;
    case DBusSources::Handled::kTimedOut:
      return false;
    case DBusSources::Handled::kNothingToWaitFor:
      break;
  }
  // The peer has ended, and libdbus stops reading because so many of its messages are undelivered.
  dbus_connection_close(connection_.get());
  return true;
}

void DBusPeerLink::callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                             PeerConnection::Completion completion) {
  const auto failLater = [&](NSException why) {
    loop_.post([weak = weak_from_this(), why = std::move(why),
                completion = std::move(completion)]() mutable {
      const auto link = weak.lock();
      if (link && !link->closed_) completion(std::unexpected(std::move(why)));
    });
  };
  if (!isConnected()) return failLater(raisedGone().error());
  auto encoded = encodeMessage(selector, arguments, PeerMessageKind::kTwoWay, contents_);
  if (!encoded) {
    return failLater({kNSInvalidArgumentException, describe(encoded.error()), {}});
  }
  if (outstanding_.size() >= kMaxPeerCallsAwaitingReply) {
    return failLater({kNSInvalidArgumentException, "Too many calls await their answer.", {}});
  }
  if (!canBeSent(*encoded)) {
    return failLater({kNSInvalidArgumentException, describe(noDescriptors()), {}});
  }
  if (!hasRoom(*encoded)) {
    return failLater({kNSPortTimeoutException, "The peer leaves too much unread.", {}});
  }
  const auto serial = transmit(*encoded);
  if (!serial) return failLater(raisedGone().error());
  Outstanding& entry = outstanding_[*serial];
  entry.completion = std::move(completion);
  if (timeout == Duration::max()) return;
  entry.timer = loop_.startTimer(timeout, RunLoop::Repeat::kOnce,
                                 [this, serial = *serial] { expire(serial); });
}

void DBusPeerLink::expire(std::uint32_t serial) {
  const auto self = shared_from_this();
  // libdbus stops reading when kMaxPeerMessageBytes are undelivered.
  do {
    if (!ended_) collect();
    if (!hasAnswerTo(serial)) continue;
    sources_->scheduleDispatch();
    return;
  } while (isConnected() &&
           sources_->handleWithin(Duration::zero()) == DBusSources::Handled::kSome);
  auto expired = outstanding_.extract(serial);
  if (!expired.empty()) expired.mapped().completion(raisedNoAnswer());
}

Result<void> DBusPeerLink::send(std::string_view selector, const Array& arguments) {
  if (!isConnected()) return std::unexpected(connectionEnded());
  auto encoded = encodeMessage(selector, arguments, PeerMessageKind::kOneWay, contents_);
  if (!encoded) return std::unexpected(std::move(encoded.error()));
  if (!hasRoom(*encoded)) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "the peer leaves too much unread"});
  }
  auto sent = transmit(*encoded);
  if (!sent) return std::unexpected(std::move(sent.error()));
  return {};
}

Result<void> DBusPeerLink::answer(std::uint32_t serial, const MessageResult& result) {
  if (!isConnected()) return std::unexpected(connectionEnded());
  Result<void> outcome;
  auto encoded = encodeAnswer(serial, result, contents_);
  if (encoded && !canBeSent(*encoded)) encoded = std::unexpected(noDescriptors());
  if (!encoded) {
    outcome = std::unexpected(encoded.error());
    encoded =
        encodeAnswer(serial, raised(kNSInvalidArgumentException,
                                    "An answer that can't travel: " + describe(encoded.error())));
    if (!encoded) return std::unexpected(std::move(encoded.error()));
  }
  if (!hasRoom(*encoded)) {
    Error why{ErrorCode::kExhausted, 0, "the peer leaves too many answers unread"};
    refuse(why);
    return std::unexpected(std::move(why));
  }
  auto sent = transmit(*encoded);
  if (!sent) return std::unexpected(std::move(sent.error()));
  return outcome;
}

bool DBusPeerLink::hasRoom(const EncodedMessage& message) {
  const auto unread =
      static_cast<std::size_t>(dbus_connection_get_outgoing_size(connection_.get()));
  if (unread + message.wireBytes > kMaxPeerUnreadBytes) return false;
  // Each descriptor that libdbus has not written yet takes one of ours.
  const auto unsent =
      static_cast<std::size_t>(dbus_connection_get_outgoing_unix_fds(connection_.get()));
  if (message.descriptors > 0 && unsent + message.descriptors > kMaxPeerDescriptors) return false;
  // libdbus does not count the files, and the socket has room for hundreds of descriptors.
  if (message.fileBytes > 0 &&
      unreadFiles_.bytes(unread == 0) + message.fileBytes > kMaxPeerMemoryFileBytes) {
    return false;
  }
  return account(message.wireBytes + message.fileBytes);
}

bool DBusPeerLink::canBeSent(const EncodedMessage& message) {
  if (!dbus_message_contains_unix_fds(message.message.get())) return true;
  // Only the accepting side has an account.
  const bool isTaken = lease_.account || mayPassDescriptors(::geteuid(), peer_.user);
  return isTaken && dbus_connection_can_send_type(connection_.get(), DBUS_TYPE_UNIX_FD);
}

Result<std::uint32_t> DBusPeerLink::transmit(const EncodedMessage& message) {
  if (!canBeSent(message)) return std::unexpected(noDescriptors());
  const auto isWritten = [this] {
    return dbus_connection_get_outgoing_size(connection_.get()) == 0;
  };
  unreadFiles_.willSend(message.fileBytes, isWritten());
  dbus_uint32_t serial = 0;
  if (!dbus_connection_send(connection_.get(), message.message.get(), &serial)) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "no memory to send a message"});
  }
  unreadFiles_.sent(message.fileBytes, isWritten());
  account();
  return serial;
}

}  // namespace platform
