#include "Platform/NamedConnections/NSConnection.h"

#include <utility>

#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {

NSConnection::NSConnection(Maker, NamedConnections& connections, Role role, std::string name,
                           std::unique_ptr<PeerConnection> peer, std::weak_ptr<NSConnection> parent)
    : connections_(connections),
      role_(role),
      name_(std::move(name)),
      peer_(std::move(peer)),
      parent_(std::move(parent)),
      replyTimeout_(role == Role::kServer ? kCallbackTimeout : kDefaultTimeout),
      requestTimeout_(replyTimeout_) {}

NSConnection::~NSConnection() {
  for (const auto& child : std::exchange(children_, {})) child->invalidate();
}

void NSConnection::listenToPeer() {
  const std::weak_ptr<NSConnection> self = weak_from_this();
  PeerHandlers handlers;
  handlers.message = [self](PeerMessage message) {
    if (const auto connection = self.lock()) connection->handle(std::move(message));
  };
  handlers.death = [self](const Error& why) {
    if (const auto connection = self.lock()) connection->died(why);
  };
  peer_->setHandlers(std::move(handlers));
}

bool NSConnection::registerName(std::string_view name) {
  const auto fail = [&](std::string_view why) {
    connections_.failures_.write(
        stringWithFormat("The name \"%@\" was not registered: %@", name, why));
    return false;
  };
  if (!valid_) return fail("the connection has ended");
  if (role_ != Role::kServer) return fail("the connection leads to a peer");
  if (listener_) return fail(stringWithFormat("the connection has the name \"%@\"", name_));
  if (name.empty()) return fail("it is empty");
  const std::weak_ptr<NSConnection> self = weak_from_this();
  PeerListenerOptions options;
  const ListenerPlace place = connections_.place_(name);
  options.audience = place.clients;
  options.excluded = [self, server = std::string(name)](const PeerCredentials& peer) {
    if (const auto connection = self.lock())
      connection->logRefusal(server, peer, "this user may not use it");
  };
  auto listener = connections_.transport_.listen(place.path, options,
                                                 [self](std::unique_ptr<PeerConnection> peer) {
                                                   if (const auto connection = self.lock())
                                                     connection->accept(std::move(peer));
                                                 });
  if (!listener) return fail(describe(listener.error()));
  listener_ = std::move(*listener);
  name_ = name;
  return true;
}

void NSConnection::setRootObject(std::shared_ptr<const NSProtocolChecker> rootObject) {
  rootObject_ = std::move(rootObject);
}

void NSConnection::accept(std::unique_ptr<PeerConnection> peer) {
  const auto child = std::make_shared<NSConnection>(Maker(), connections_, Role::kChild, name_,
                                                    std::move(peer), weak_from_this());
  child->rootObject_ = rootObject_;
  child->replyTimeout_ = replyTimeout_;
  child->requestTimeout_ = requestTimeout_;
  children_.push_back(child);
  child->listenToPeer();
  if (delegate_ == nullptr) return child->refuse(nullptr, "this server has no delegate");
  if (!delegate_->connection(*this, *child)) child->invalidate();
}

void NSConnection::invalidate() {
  if (!valid_) return;
  const auto self = shared_from_this();  // Its parent or a proxy may have had the last reference.
  valid_ = false;
  listener_.reset();
  if (peer_) peer_->close();
  rootObject_.reset();
  for (const auto& child : std::exchange(children_, {})) child->invalidate();
  if (const auto parent = parent_.lock()) std::erase(parent->children_, self);
  connections_.center_.post({kNSConnectionDidDieNotification, this});
}

void NSConnection::died(const Error& why) {
  // A normal end of the peer is not logged.
  if (why.code != ErrorCode::kNotFound) logRefusal(describe(why));
  invalidate();
}

void NSConnection::logRefusal(std::string_view why) { logRefusal(name_, peer_->peer(), why); }

void NSConnection::logRefusal(std::string_view name, const PeerCredentials& peer,
                              std::string_view why) {
  connections_.refusals_.write(
      stringWithFormat("Ended a connection of \"%@\" with process %d of user %u: %@", name,
                       peer.process, peer.user, why),
      peer.user);
}

}  // namespace platform
