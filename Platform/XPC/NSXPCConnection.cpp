#include "Platform/XPC/NSXPCConnection.h"

#include <algorithm>
#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "Platform/XPC/XPC.h"

namespace platform {

namespace {

constexpr char kEnded[] = "The other side has ended.";
constexpr char kInvalidated[] = "The connection has been invalidated.";

// In a reply's array the null marker stands for nil.
Array withNil(const Array& values) {
  Array converted = values;
  std::ranges::replace_if(
      converted, [](const Value& value) { return value.type() == Value::Type::kNullMarker; },
      Value());
  return converted;
}

}  // namespace

NSXPCConnection::NSXPCConnection(Maker, XPC& xpc, std::shared_ptr<SerialQueue> queue,
                                 std::unique_ptr<PeerConnection> accepted)
    : xpc_(xpc),
      loop_(xpc.environment_.loop),
      queue_(std::move(queue)),
      role_(Role::kAccepted),
      peer_(std::move(accepted)) {
  processIdentifier_ = peer_->peer().process;
  effectiveUserIdentifier_ = peer_->peer().user;
}

NSXPCConnection::NSXPCConnection(Maker, XPC& xpc, std::shared_ptr<SerialQueue> queue,
                                 std::string machService)
    : xpc_(xpc),
      loop_(xpc.environment_.loop),
      queue_(std::move(queue)),
      role_(Role::kMachClient),
      machService_(std::move(machService)) {}

NSXPCConnection::NSXPCConnection(Maker, XPC& xpc, std::shared_ptr<SerialQueue> queue,
                                 std::shared_ptr<const NSXPCListenerEndpoint> endpoint)
    : xpc_(xpc),
      loop_(xpc.environment_.loop),
      queue_(std::move(queue)),
      role_(Role::kEndpointClient),
      endpoint_(std::move(endpoint)) {}

NSXPCConnection::~NSXPCConnection() { dropPeer(); }

// The transport's connection belongs to the loop's thread, wherever this destructor runs.
void NSXPCConnection::dropPeer() {
  if (peer_) loop_.post([peer = std::move(peer_)] {});
}

void NSXPCConnection::deliver(SerialQueue::Block block) {
  const std::lock_guard lock(mutex_);  // So that held blocks stay in front.
  if (suspensions_ > 0) {
    held_.push_back(std::move(block));
  } else {
    queue_->async(std::move(block));
  }
}

void NSXPCConnection::deliverMessage(SerialQueue::Block block) {
  {
    const std::lock_guard lock(mutex_);  // resume() also sets the flag under the lock.
    if (suspensions_ > 0) return held_.push_back(std::move(block));
    if (!servesAtOnce_) return queue_->async(std::move(block));
  }
  xpc_.noteLoopThread();
  // This thread carries every connection, so it never waits for a queue. Every delivery runs on
  // this thread, so nothing can get in between.
  if (!queue_->trySync(block)) queue_->async(std::move(block));
}

void NSXPCConnection::resume() {
  {
    const std::lock_guard lock(mutex_);
    if (suspensions_ == 0 || --suspensions_ > 0) return;
    for (SerialQueue::Block& block : held_) queue_->async(std::move(block));
    held_.clear();
  }
  if (role_ == Role::kAccepted) return;
  loop_.post([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->begin();
  });
}

void NSXPCConnection::begin() {
  if (std::exchange(begun_, true)) return;
  if (!finished_) connect();
  for (auto& message : std::exchange(early_, {})) transmit(std::move(message));
}

void NSXPCConnection::suspend() {
  const std::lock_guard lock(mutex_);
  ++suspensions_;
}

void NSXPCConnection::invalidate() {
  if (invalid_.exchange(true)) return;
  loop_.post([self = shared_from_this()] { self->becomeInvalid(NSXPCConnectionInvalid); });
}

void NSXPCConnection::becomeInvalid(std::int64_t whyMessagesFail) {
  if (std::exchange(finished_, true)) return;
  invalid_ = true;
  const auto self = shared_from_this();
  xpc_.accepted_.erase(self);
  dropPeer();
  for (const auto& message : std::exchange(early_, {})) {
    fail(message, whyMessagesFail, kInvalidated);
  }
  failOutstanding(whyMessagesFail,
                  whyMessagesFail == NSXPCConnectionInvalid ? kInvalidated : kEnded);
  // Also for a connection that was never resumed, or its held blocks would never be dropped.
  const std::lock_guard lock(mutex_);
  suspensions_ = 0;
  for (SerialQueue::Block& block : held_) queue_->async(std::move(block));
  held_.clear();
  queue_->async([self] {
    // Everything that the handlers own, maybe this, is destroyed with them.
    const Handler invalidated = std::exchange(self->invalidationHandler_, nullptr);
    self->interruptionHandler_ = nullptr;
    const auto object = std::exchange(self->exportedObject_, nullptr);
    if (invalidated) invalidated();
  });
}

void NSXPCConnection::failOutstanding(std::int64_t code, const std::string& why) {
  for (const auto& [number, message] : std::exchange(outstanding_, {})) fail(message, code, why);
}

void NSXPCConnection::fail(const std::shared_ptr<Outgoing>& message, std::int64_t code,
                           const std::string& why) {
  if (!message->error) return;
  deliver([error = std::move(message->error),
           reason = NSError{kNSCocoaErrorDomain, code, why}]() mutable { error(reason); });
  message->reply = nullptr;
}

// Outgoing.

void NSXPCConnection::sendMessage(std::string_view selector, Array arguments, ReplyHandler reply,
                                  ErrorHandler error) {
  auto message = std::make_shared<Outgoing>(
      Outgoing{std::string(selector), std::move(arguments), std::move(reply), std::move(error)});
  loop_.post([self = shared_from_this(), message = std::move(message)]() mutable {
    self->transmit(std::move(message));
  });
}

void NSXPCConnection::transmit(std::shared_ptr<Outgoing> message) {
  if (!finished_ && role_ != Role::kAccepted && !begun_) {
    if (early_.size() < kMaxWaitingMessages) return early_.push_back(std::move(message));
    return fail(message, NSXPCConnectionReplyInvalid, "Too many messages before a resume.");
  }
  if (finished_ || (!peer_ && !connect())) {
    return fail(message, NSXPCConnectionInvalid, kInvalidated);
  }
  const MethodDescription* method =
      remoteInterface_ ? remoteInterface_->method(message->selector) : nullptr;
  if (!method) {
    return fail(message, NSXPCConnectionReplyInvalid,
                "\"" + message->selector + "\" is no message of the remote object's interface");
  }
  if (method->kind == MethodDescription::Kind::kOneWay) {
    const auto sent = peer_->send(message->selector, message->arguments);
    if (!sent) fail(message, NSXPCConnectionReplyInvalid, describe(sent.error()));
    return;
  }
  Array arguments = std::move(message->arguments);
  arguments.emplace_back();  // The place of the reply.
  const std::uint64_t number = ++lastMessage_;
  outstanding_.emplace(number, message);
  peer_->callAsync(message->selector, arguments, Duration::max(),
                   [weak = weak_from_this(), number](const MessageResult& result) {
                     const auto self = weak.lock();
                     if (self) self->replied(number, result);
                   });
}

void NSXPCConnection::replied(std::uint64_t number, const MessageResult& result) {
  const auto answered = outstanding_.extract(number);
  if (answered.empty()) return;
  const std::shared_ptr<Outgoing>& message = answered.mapped();
  if (!result) {
    const bool isGone = result.error().name == kNSInvalidSendPortException;
    return fail(message, isGone ? NSXPCConnectionInterrupted : NSXPCConnectionReplyInvalid,
                result.error().name + ": " + result.error().reason);
  }
  const Array* values = result->array();
  if (!values) {
    return fail(message, NSXPCConnectionReplyInvalid, "A reply that is no array of values.");
  }
  message->error = nullptr;
  if (!message->reply) return;
  deliver([reply = std::move(message->reply), values = withNil(*values)]() mutable {
    reply(std::move(values));
  });
}

// False if there is no connection; it is invalid then.
bool NSXPCConnection::connect() {
  if (peer_) return true;
  PeerConnectOptions options{.timeout = XPC::kConnectTimeout,
                             .whileWaiting = WhileWaiting::kServeNothing,
                             .contents = PeerMessageContents::kValuesAndEndpoints};
  PeerTransport& transport = xpc_.environment_.transport;
  const auto connectByRole = [&] {
    if (role_ == Role::kEndpointClient) {
      // Its owner may be any user; the endpoint came from a server that is trusted.
      options.servers = PeerAudience::all();
      return transport.connectToEndpoint(*endpoint_, options);
    }
    const ListenerPlace place = xpc_.environment_.place(machService_);
    options.servers = place.servers;
    return transport.connect(place.path, options);
  };
  auto connected = connectByRole();
  if (!connected) {
    becomeInvalid(NSXPCConnectionInvalid);
    return false;
  }
  peer_ = std::move(*connected);
  processIdentifier_ = peer_->peer().process;
  effectiveUserIdentifier_ = peer_->peer().user;
  listenToPeer();
  return true;
}

void NSXPCConnection::died() {
  const auto self = shared_from_this();
  if (role_ != Role::kMachClient) return becomeInvalid(NSXPCConnectionInterrupted);
  dropPeer();
  failOutstanding(NSXPCConnectionInterrupted, kEnded);
  deliver([self] {
    if (self->interruptionHandler_) self->interruptionHandler_();
  });
}

}  // namespace platform
