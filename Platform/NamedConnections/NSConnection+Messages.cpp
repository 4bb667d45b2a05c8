// The messages of a connection. The first message of a client is
//
//   NSConnectionAuthenticate:    its authentication data; answered with the server's data
//
// After that, a message to the root object has its own selector. A message to an object that was
// passed as a reference has that selector after a keyword that takes the object's number:
//
//   NSDistantObject:SELECTOR     number, arguments...

#include <utility>

#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

// The peer whose message this thread delivers.
thread_local const PeerCredentials* servedPeer = nullptr;

constexpr std::string_view kAuthenticate = "NSConnectionAuthenticate:";
constexpr std::string_view kObjectKeyword = "NSDistantObject:";
constexpr char kShortage[] = "this process is short of descriptors and can't ask whose it is";

NSException exception(const char* name, std::string reason) {
  return NSException{name, std::move(reason), {}};
}

std::unexpected<NSException> raise(const char* name, std::string reason) {
  return std::unexpected(exception(name, std::move(reason)));
}

std::unexpected<NSException> raiseEnded() {
  return raise(kNSInvalidSendPortException, "the connection has ended");
}

// Sends no answer. It keeps the peer's reply until the object has answered, because the request
// counts among those of its user until then.
class UnsentReply final : public PeerReply {
 public:
  explicit UnsentReply(std::unique_ptr<PeerReply> kept) : kept_(std::move(kept)) {}

  Result<void> answer(const MessageResult& /*result*/) override {
    kept_.reset();
    return {};
  }

 private:
  std::unique_ptr<PeerReply> kept_;
};

}  // namespace

std::expected<std::shared_ptr<NSDistantObject>, NSException> NSConnection::rootProxy() {
  const auto self = shared_from_this();
  if (!valid_ || role_ == Role::kServer) return raiseEnded();
  if (auto authenticated = authenticate(); !authenticated)
    return std::unexpected(std::move(authenticated.error()));
  if (auto known = rootProxy_.lock()) return known;
  auto proxy = std::make_shared<NSDistantObject>(
      self, NSDistantObject::Description{NSDistantObject::kRootObject, "NSDistantObject", {}});
  rootProxy_ = proxy;
  return proxy;
}

std::expected<void, NSException> NSConnection::authenticate() {
  if (stage_ == Stage::kOpen) return {};
  const auto fail = [&](NSException raised) {
    invalidate();
    return std::unexpected(std::move(raised));
  };
  const auto failAuthentication = [&](std::string_view why) {
    logRefusal(why);
    return fail(exception(kNSFailedAuthenticationException, std::string(why)));
  };
  // A child's peer authenticates first. If a delegate asks for the proxy while it is asked for its
  // data, that fails, too.
  if (role_ != Role::kClient || stage_ == Stage::kAuthenticating)
    return raise(kNSFailedAuthenticationException, "the two sides have not authenticated yet");
  if (delegate_ == nullptr) return failAuthentication("this client has no delegate");
  stage_ = Stage::kAuthenticating;
  auto answer =
      peer_->call(kAuthenticate, {delegate_->authenticationDataForComponents({})}, requestTimeout_);
  if (!answer) {
    if (!isProbe_ && answer.error().name == kNSPortTimeoutException) connections_.markHung(name_);
    return fail(std::move(answer.error()));
  }
  if (!valid_) return raiseEnded();
  const Data* data = answer->data();
  if (data == nullptr || delegate_ == nullptr || !delegate_->authenticateComponents({}, *data))
    return failAuthentication("the server did not authenticate itself");
  if (!valid_) return raiseEnded();
  stage_ = Stage::kOpen;
  return {};
}

std::expected<PeerMessage, NSException> NSConnection::compose(std::int64_t object,
                                                              std::string_view selector,
                                                              const Array& arguments) {
  if (!valid_) return raiseEnded();
  PeerMessage message;
  if (object != NSDistantObject::kRootObject) {
    message.selector = kObjectKeyword;
    message.arguments.emplace_back(object);
  }
  message.selector += selector;
  for (const Value& argument : arguments) {
    auto encoded = references_.encode(argument);
    if (!encoded) return raise(kNSInvalidArgumentException, std::move(encoded.error().context));
    message.arguments.push_back(std::move(*encoded));
  }
  return message;
}

MessageResult NSConnection::sendTwoWay(std::int64_t object, std::string_view selector,
                                       const Array& arguments) {
  const auto self = shared_from_this();
  const auto message = compose(object, selector, arguments);
  if (!message) return std::unexpected(message.error());
  return readAnswer(peer_->call(message->selector, message->arguments, replyTimeout_));
}

void NSConnection::sendTwoWayAsync(std::int64_t object, std::string_view selector,
                                   const Array& arguments, MessageReply reply) {
  const auto message = compose(object, selector, arguments);
  if (!message) return reply.answer(std::unexpected(message.error()));
  ++messagesUnderWay_;
  peer_->callAsync(
      message->selector, message->arguments, replyTimeout_,
      [weak = weak_from_this(), reply = std::move(reply)](MessageResult answer) mutable {
        const auto self = weak.lock();
        if (!self) return;
        --self->messagesUnderWay_;
        reply.answer(self->readAnswer(std::move(answer)));
      });
}

MessageResult NSConnection::readAnswer(MessageResult answer) {
  if (!answer) {
    // A client that hangs would cost a time-out for each object that it has passed to us. From the
    // end of its connection it learns that it gets no more calls.
    if (role_ == Role::kChild && answer.error().name == kNSPortTimeoutException && valid_) {
      logRefusal("it did not answer in time");
      invalidate();
    }
    return answer;
  }
  auto decoded = references_.decode(*answer, shared_from_this());
  if (decoded) return std::move(*decoded);
  breakOff(nullptr, decoded.error().context);
  return raise(kNSInvalidSendPortException, std::move(decoded.error().context));
}

MessageResult NSConnection::sendOneWay(std::int64_t object, std::string_view selector,
                                       const Array& arguments) {
  const auto message = compose(object, selector, arguments);
  if (!message) return std::unexpected(message.error());
  const auto sent = peer_->send(message->selector, message->arguments);
  if (sent) return Value();
  std::string reason = describe(sent.error());
  switch (sent.error().code) {
    case ErrorCode::kInvalid:
      return raise(kNSInvalidArgumentException, std::move(reason));
    case ErrorCode::kExhausted:  // The port stays full, as for a peer that never answers.
      return raise(kNSPortTimeoutException, std::move(reason));
    default:
      return raise(kNSInvalidSendPortException, std::move(reason));
  }
}

const PeerCredentials* NSConnection::currentPeer() { return servedPeer; }

void NSConnection::handle(PeerMessage message) {
  if (!valid_) return;
  if (stage_ != Stage::kOpen) return handleAuthentication(std::move(message));
  if (message.selector == kAuthenticate)
    return breakOff(std::move(message.reply), "it authenticated itself twice");
  if (!isOfItsProcess(message)) return;
  const auto request = readRequest(message);
  if (!request) return breakOff(std::move(message.reply), request.error().context);
  perform(*request, std::move(message.reply));
}

void NSConnection::handleAuthentication(PeerMessage message) {
  if (role_ != Role::kChild)
    return refuse(std::move(message.reply), "it spoke before it had authenticated itself");
  const Data* data = message.selector == kAuthenticate && message.arguments.size() == 1
                         ? message.arguments.front().data()
                         : nullptr;
  if (data == nullptr || !message.reply)
    return refuse(std::move(message.reply), "its first message was not its authentication");
  if (delegate_ == nullptr) return refuse(std::move(message.reply), "there is no delegate");
  if (!delegate_->authenticateComponents({}, *data))
    return refuse(std::move(message.reply), "its authentication was wrong");
  const PeerState peer = peer_->peerState();
  // No failure of the authentication: the client may try again.
  if (peer == PeerState::kUnknown) return breakOff(std::move(message.reply), kShortage);
  if (peer != PeerState::kUnchanged)
    return refuse(std::move(message.reply),
                  "the process that connected has ended or has become another user's");
  if (!valid_ || delegate_ == nullptr) return invalidate();
  stage_ = Stage::kOpen;
  peer_->admit();
  (void)message.reply->answer(Value(delegate_->authenticationDataForComponents({})));
}

// False if the request may be another process's: then it is refused, or its connection ended.
bool NSConnection::isOfItsProcess(PeerMessage& message) {
  if (role_ != Role::kChild) return true;
  switch (peer_->peerState()) {
    case PeerState::kUnchanged:
      return true;
    case PeerState::kEnded:
      // It was sent before that, as the end of an installer's work may be. The socket may still be
      // open in a process that got the connection passed on, which must not learn the answer.
      if (message.reply) message.reply = std::make_unique<UnsentReply>(std::move(message.reply));
      return true;
    case PeerState::kUnknown:
      connections_.refusals_.write(
          stringWithFormat("Refused a request to \"%@\" of process %d of user %u: %@", name_,
                           peer_->peer().process, peer_->peer().user, kShortage),
          peer_->peer().user);
      if (message.reply) (void)message.reply->answer(raise(kNSInvalidArgumentException, kShortage));
      return false;
    case PeerState::kPassedOn:
      refuse(std::move(message.reply), "its process has passed it on and ended");
      return false;
    case PeerState::kOtherUser:
      break;
  }
  refuse(std::move(message.reply), "its process has become another user's");
  return false;
}

Result<NSConnection::Request> NSConnection::readRequest(const PeerMessage& message) {
  Request request{rootObject_, message.selector, {}};
  auto argument = message.arguments.begin();
  if (message.selector.starts_with(kObjectKeyword)) {
    request.selector.erase(0, kObjectKeyword.size());
    const auto number =
        argument == message.arguments.end() ? std::nullopt : (argument++)->integer();
    if (!number) return std::unexpected(Error{ErrorCode::kInvalid, 0, "a message to no object"});
    request.object = references_.find(*number);
  }
  for (; argument != message.arguments.end(); ++argument) {
    auto decoded = references_.decode(*argument, shared_from_this());
    if (!decoded) return std::unexpected(std::move(decoded.error()));
    request.arguments.push_back(std::move(*decoded));
  }
  return request;
}

void NSConnection::perform(const Request& request, std::unique_ptr<PeerReply> peersReply) {
  MessageReply reply = replyThrough(std::move(peersReply));
  if (!request.object)
    return reply.answer(
        raise(kNSInvalidSendPortException, "the object that the message was for is gone"));
  // A peer could nest without end: a request within our call within its request, and so on.
  if (nestedRequests_ == kMaxNestedRequests)
    return reply.answer(raise(kNSInvalidArgumentException, "too many requests inside one another"));
  ++nestedRequests_;
  const PeerCredentials peer = peer_->peer();
  const PeerCredentials* const before = std::exchange(servedPeer, &peer);
  request.object->sendMessageAsync(request.selector, request.arguments, std::move(reply));
  servedPeer = before;
  --nestedRequests_;
}

// The reply holds the connection weakly, so that an object that answers late keeps no connection.
MessageReply NSConnection::replyThrough(std::unique_ptr<PeerReply> reply) {
  if (!reply) return {};
  return MessageReply([weak = weak_from_this(), reply = std::move(reply)](MessageResult result) {
    const auto self = weak.lock();
    if (!self || !self->valid_) return;
    if (result) {
      auto encoded = self->references_.encode(*result);
      result = encoded ? MessageResult(std::move(*encoded))
                       : raise(kNSInvalidArgumentException, std::move(encoded.error().context));
    }
    // If it can't be answered, the peer has ended or does not read. Ignore that.
    (void)reply->answer(result);
  });
}

void NSConnection::refuse(std::unique_ptr<PeerReply> reply, std::string_view why) {
  end(std::move(reply), exception(kNSFailedAuthenticationException, std::string(why)));
}

void NSConnection::breakOff(std::unique_ptr<PeerReply> reply, std::string_view why) {
  end(std::move(reply), exception(kNSInvalidArgumentException, std::string(why)));
}

void NSConnection::end(std::unique_ptr<PeerReply> reply, const NSException& why) {
  if (valid_) logRefusal(why.reason);
  if (reply) (void)reply->answer(std::unexpected(why));
  invalidate();
}

}  // namespace platform
