#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Messages/MessageReply.h"
#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/NamedConnections/NSDistantObject.h"
#include "Platform/NamedConnections/RemoteReferences.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

namespace platform {

class NamedConnections;
class NSConnection;

// Posted once on the local notification centre when a connection has ended, by either side;
// `object` is the connection.
inline constexpr char kNSConnectionDidDieNotification[] = "NSConnectionDidDieNotification";

// Decides which peers a connection trusts. Not retained: before the delegate is destroyed, its
// connections, also the children that it accepted, must have ended or have another delegate or
// none. Called on the loop's thread; a call may invalidate the connection.
class NSConnectionDelegate {
 public:
  virtual ~NSConnectionDelegate() = default;

  // connection:shouldMakeNewConnection: - a peer has connected to `parent`. The new connection has
  // the parent's root object and time-outs, but no delegate. A connection that is accepted without
  // a delegate trusts nobody.
  virtual bool connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) = 0;

  // The authentication data of this side. `components` is empty here.
  virtual Data authenticationDataForComponents(const Array& components) = 0;

  // Whether the other side's authentication data is right.
  virtual bool authenticateComponents(const Array& components, const Data& withData) = 0;
};

// One end of a channel to objects of another program, or a name under which such channels are made.
// NamedConnections makes it: a server registers a name, a client looks one up, and each client is a
// child connection of the server's, which keeps it until it dies.
//
// Both sides authenticate each other by their delegates before a message reaches an object: the
// first message is the client's data, and its answer is the server's. A side without a delegate
// trusts nobody. A failure ends the connection and is logged (ident "NSConnection", with a limit of
// lines per minute).
//
// Belongs to the loop's thread. Shared by its maker, its parent and its proxies. The destructor
// closes it without a notice.
class NSConnection final : public std::enable_shared_from_this<NSConnection> {
 public:
  // The time-out of a server's call to a client.
  static constexpr Duration kCallbackTimeout = std::chrono::seconds(2);
  // The default time-out of a client's call.
  static constexpr Duration kDefaultTimeout = std::chrono::seconds(10);
  // The limit of nested requests of a peer, each of which is served during a call of ours to it.
  static constexpr std::size_t kMaxNestedRequests = 8;

  // For NamedConnections, which makes connections.
  class Maker {
    friend class NamedConnections;
    friend class NSConnection;
    Maker() = default;
  };
  enum class Role { kServer, kClient, kChild };
  NSConnection(Maker, NamedConnections& connections, Role role, std::string name,
               std::unique_ptr<PeerConnection> peer, std::weak_ptr<NSConnection> parent);
  NSConnection(const NSConnection&) = delete;
  NSConnection& operator=(const NSConnection&) = delete;
  ~NSConnection();

  // Registers the root object under a name for other programs. False, and logged, if the name is
  // taken or not available, or if this connection has a name already, leads to a peer, or has
  // ended.
  bool registerName(std::string_view name);

  // The object for clients of the name; it admits only its protocol. Existing child connections
  // keep theirs. With null every message raises NSInvalidSendPortException.
  void setRootObject(std::shared_ptr<const NSProtocolChecker> rootObject);

  void setDelegate(NSConnectionDelegate* delegate) { delegate_ = delegate; }
  NSConnectionDelegate* delegate() const { return delegate_; }

  // The time-out of a two-way message. Child connections start with the parent's.
  void setReplyTimeout(Duration timeout) { replyTimeout_ = timeout; }
  Duration replyTimeout() const { return replyTimeout_; }
  // The time-out of a request until it can be sent, which is when the two sides have authenticated
  // each other; sending itself never blocks.
  void setRequestTimeout(Duration timeout) { requestTimeout_ = timeout; }
  Duration requestTimeout() const { return requestTimeout_; }

  // The peer's root object; the same proxy for as long as somebody keeps it. If the two sides have
  // not authenticated each other yet, it does that first, and blocks for at most the request
  // time-out. Raises NSFailedAuthenticationException, NSPortTimeoutException or
  // NSInvalidSendPortException; the connection has ended then.
  std::expected<std::shared_ptr<NSDistantObject>, NSException> rootProxy();

  bool isValid() const { return valid_; }

  // Ends the connection and its child connections, releases the name and posts the notice. Later
  // calls do nothing.
  void invalidate();

  // The peer's connection with the kernel's credentials; null if this connection has a name.
  const PeerConnection* peer() const { return peer_.get(); }

  // The peer whose message this thread delivers to an object now, null if there is none.
  static const PeerCredentials* currentPeer();

  const std::vector<std::shared_ptr<NSConnection>>& childConnections() const { return children_; }

 private:
  friend class NamedConnections;
  friend class NSDistantObject;

  // The messages that a peer may send: only its authentication data, or any.
  enum class Stage { kUnauthenticated, kAuthenticating, kOpen };

  void listenToPeer();
  void accept(std::unique_ptr<PeerConnection> peer);
  void died(const Error& why);
  void logRefusal(std::string_view why);
  void logRefusal(std::string_view name, const PeerCredentials& peer, std::string_view why);

  // Our messages, see NSDistantObject::sendMessage().
  MessageResult sendTwoWay(std::int64_t object, std::string_view selector, const Array& arguments);
  void sendTwoWayAsync(std::int64_t object, std::string_view selector, const Array& arguments,
                       MessageReply reply);
  MessageResult readAnswer(MessageResult answer);
  MessageResult sendOneWay(std::int64_t object, std::string_view selector, const Array& arguments);
  std::expected<PeerMessage, NSException> compose(std::int64_t object, std::string_view selector,
                                                  const Array& arguments);
  std::expected<void, NSException> authenticate();

  // The peer's messages.
  void handle(PeerMessage message);
  void handleAuthentication(PeerMessage message);
  struct Request {
    std::shared_ptr<const NSProxy> object;  // null if it no longer exists
    std::string selector;
    Array arguments;
  };
  // Fails if the message breaks the protocol.
  bool isOfItsProcess(PeerMessage& message);
  Result<Request> readRequest(const PeerMessage& message);
  void perform(const Request& request, std::unique_ptr<PeerReply> peersReply);
  MessageReply replyThrough(std::unique_ptr<PeerReply> reply);

  // Both end the connection for an error of the peer, and report it to the peer and the log:
  // refuse() before the peer is trusted, breakOff() after that.
  void refuse(std::unique_ptr<PeerReply> reply, std::string_view why);
  void breakOff(std::unique_ptr<PeerReply> reply, std::string_view why);
  void end(std::unique_ptr<PeerReply> reply, const NSException& why);

  NamedConnections& connections_;
  const Role role_;
  std::string name_;  // the registered name, or the name that was looked up
  std::unique_ptr<PeerConnection> peer_;
  std::unique_ptr<PeerListener> listener_;
  const std::weak_ptr<NSConnection> parent_;
  // Shared with their proxies.
  std::vector<std::shared_ptr<NSConnection>> children_;
  std::shared_ptr<const NSProtocolChecker> rootObject_;
  std::weak_ptr<NSDistantObject> rootProxy_;
  RemoteReferences references_;
  NSConnectionDelegate* delegate_ = nullptr;
  Duration replyTimeout_;
  Duration requestTimeout_;
  Stage stage_ = Stage::kUnauthenticated;
  std::size_t nestedRequests_ = 0;
  std::size_t messagesUnderWay_ = 0;  // sent by sendTwoWayAsync(), and not answered
  bool isProbe_ = false;              // Its results change nothing for others.
  bool valid_ = true;
};

}  // namespace platform
