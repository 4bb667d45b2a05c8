#include "Platform/XPC/NSXPCListener.h"

#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "Platform/XPC/XPC.h"

namespace platform {

NSXPCListener::NSXPCListener(Maker, XPC& xpc, SerialQueues& queues, std::string machService)
    : xpc_(xpc),
      queues_(queues),
      queue_(queues.makeQueue("xpc.listener." + machService)),
      machService_(std::move(machService)) {}

NSXPCListener::~NSXPCListener() {
  xpc_.environment_.performOnLoop([this] { listener_.reset(); });
  for (const auto& connection : held_) connection->invalidate();
}

std::shared_ptr<const NSXPCListenerEndpoint> NSXPCListener::endpoint() {
  std::shared_ptr<const NSXPCListenerEndpoint> endpoint;
  xpc_.environment_.performOnLoop([&] {
    if (machService_.empty()) listenOnce();
    endpoint = endpoint_;
  });
  return endpoint;
}

void NSXPCListener::resume() {
  std::vector<std::shared_ptr<NSXPCConnection>> held;
  {
    const std::lock_guard lock(mutex_);
    if (suspensions_ == 0 || --suspensions_ > 0) return;
    held = std::exchange(held_, {});
  }
  for (const auto& connection : held) offer(connection);
  xpc_.environment_.performOnLoop([this] { listenOnce(); });
}

void NSXPCListener::suspend() {
  const std::lock_guard lock(mutex_);
  ++suspensions_;
}

void NSXPCListener::invalidate() {
  xpc_.environment_.performOnLoop([this] {
    hasListened_ = true;
    listener_.reset();
  });
}

void NSXPCListener::listenOnce() {
  if (std::exchange(hasListened_, true)) return;
  PeerListenerOptions options{.audience = xpc_.environment_.endpointClients,
                              .contents = PeerMessageContents::kValuesAndEndpoints};
  options.excluded = [weak = weak_from_this()](const PeerCredentials& peer) {
    const auto self = weak.lock();
    if (!self) return;
    const std::string what = self->machService_.empty() ? "this endpoint" : self->machService_;
    self->xpc_.logRefusal(
        peer.user,
        stringWithFormat("Refused a connection of process %d of user %u: this user may not use %@",
                         peer.process, peer.user, what));
  };
  const auto onConnection = [weak = weak_from_this()](std::unique_ptr<PeerConnection> peer) {
    if (const auto self = weak.lock()) self->arrived(std::move(peer));
  };
  PeerTransport& transport = xpc_.environment_.transport;
  if (machService_.empty()) {
    auto anonymous = transport.listenAnonymously(options, onConnection);
    if (!anonymous) {
      return xpc_.logFailure("No anonymous listener can be made: " + describe(anonymous.error()));
    }
    listener_ = std::move(anonymous->listener);
    endpoint_ = std::move(anonymous->endpoint);
    return;
  }
  const ListenerPlace place = xpc_.environment_.place(machService_);
  options.audience = place.clients;
  auto listener = transport.listen(place.path, options, onConnection);
  if (!listener) {
    return xpc_.logFailure("The Mach service " + machService_ +
                           " can't be had: " + describe(listener.error()));
  }
  listener_ = std::move(*listener);
}

void NSXPCListener::arrived(std::unique_ptr<PeerConnection> peer) {
  // If the kernel could not be asked, it is with each request.
  const PeerState state = peer->peerState();
  if (state != PeerState::kUnchanged && state != PeerState::kUnknown) {
    const PeerCredentials was = peer->peer();
    return xpc_.logRefusal(
        was.user,
        stringWithFormat("Refused a connection of process %d of user %u, which has ended or has "
                         "become another user's",
                         was.process, was.user));
  }
  peer->admit();  // No proof is required here.
  const auto connection = std::make_shared<NSXPCConnection>(
      NSXPCConnection::Maker(), xpc_, queues_.makeQueue("xpc.connection"), std::move(peer));
  connection->listenToPeer();
  xpc_.accepted_.insert(connection);
  {
    const std::lock_guard lock(mutex_);
    if (suspensions_ > 0) {
      held_.push_back(connection);
      return;
    }
  }
  offer(connection);
}

void NSXPCListener::offer(const std::shared_ptr<NSXPCConnection>& connection) {
  queue_->async([weak = weak_from_this(), connection] {
    const auto self = weak.lock();
    const auto delegate = self ? self->delegate_.lock() : nullptr;
    // Runs on the connection's own queue, because the connection may end at any time and then drops
    // what the delegate sets.
    connection->queue_->sync([&] {
      if (connection->invalid_) return;  // It has ended already, and would never drop the handlers.
      if (!delegate || !delegate->listener(*self, connection)) connection->invalidate();
    });
  });
}

}  // namespace platform
