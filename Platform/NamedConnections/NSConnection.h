#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

// Posted on the local notification centre when a connection has ended, by whichever side; `object`
// is the connection. Once for each.
inline constexpr char kNSConnectionDidDieNotification[] = "NSConnectionDidDieNotification";

// Decides whom a connection speaks with. Not retained: before it ends, its connections have ended,
// the children of those that it let in among them, or have been given another delegate or none.
// Called on the loop's thread; a call may invalidate the connection.
class NSConnectionDelegate {
 public:
  virtual ~NSConnectionDelegate() = default;

  // connection:shouldMakeNewConnection: - a peer has connected to `parent`. The new connection has
  // the parent's root object and time-outs but no delegate; one that is let in without being given
  // a delegate serves nobody.
  virtual bool connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) = 0;

  // What this side shows the other. `components` is empty here.
  virtual Data authenticationDataForComponents(const Array& components) = 0;

  // Whether what the other side showed is right.
  virtual bool authenticateComponents(const Array& components, const Data& withData) = 0;
};

// One end of a channel to objects of another program, or a name under which such channels are made.
// NamedConnections makes it: a server registers a name, a client looks one up, and each client is a
// child connection of the server's, which keeps it until it dies.
//
// Both sides authenticate each other by their delegates before any message reaches an object: the
// client's data is the first message, the server's its answer. A side without a delegate trusts
// nobody. A failure ends the connection and is logged (ident "NSConnection", so many lines a minute
// at most).
//
// Belongs to the loop's thread; shared by whoever made it, its parent and its proxies. Destroyed,
// it closes without a notice.
class NSConnection final : public std::enable_shared_from_this<NSConnection> {
 public:
  // How long a server waits for a client that it calls back.
  static constexpr Duration kCallbackTimeout = std::chrono::seconds(2);
  // How long a client waits, unless told otherwise.
  static constexpr Duration kDefaultTimeout = std::chrono::seconds(10);
  // Requests of a peer that are served inside one another, each within a call of ours to that peer.
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

  // Makes the root object known to other programs by that name. False, and logged, where the name
  // is taken or can't be had, or this connection has one already, leads to a peer, or has ended.
  bool registerName(std::string_view name);

  // What clients of the name speak to; it admits only its protocol. Child connections that exist
  // keep theirs. Null: every message raises NSInvalidSendPortException.
  void setRootObject(std::shared_ptr<const NSProtocolChecker> rootObject);

  void setDelegate(NSConnectionDelegate* delegate) { delegate_ = delegate; }
  NSConnectionDelegate* delegate() const { return delegate_; }

  // How long a two-way message waits for its answer. Child connections begin with the parent's.
  void setReplyTimeout(Duration timeout) { replyTimeout_ = timeout; }
  Duration replyTimeout() const { return replyTimeout_; }
  // How long a request may wait until it can be sent, which it can once the two sides have
  // authenticated each other; sending itself never waits.
  void setRequestTimeout(Duration timeout) { requestTimeout_ = timeout; }
  Duration requestTimeout() const { return requestTimeout_; }

  // The peer's root object; the same proxy for as long as somebody keeps it. Authenticates both
  // sides if that has not happened yet, and then blocks for the request time-out at most. Raises
  // NSFailedAuthenticationException, NSPortTimeoutException or NSInvalidSendPortException, and the
  // connection has ended then.
  std::expected<std::shared_ptr<NSDistantObject>, NSException> rootProxy();

  bool isValid() const { return valid_; }

  // Ends the connection with its child connections, gives the name away and posts the notice. Later
  // calls do nothing.
  void invalidate();

  // Who is at the other end, as the kernel says; null on a connection that has a name.
  const PeerConnection* peer() const { return peer_.get(); }

  const std::vector<std::shared_ptr<NSConnection>>& childConnections() const { return children_; }

 private:
  friend class NamedConnections;
  friend class NSDistantObject;

  // What a peer may send: its authentication data alone, or anything.
  enum class Stage { kUnauthenticated, kAuthenticating, kOpen };

  void listenToPeer();
  void accept(std::unique_ptr<PeerConnection> peer);
  void died(const Error& why);
  void logRefusal(std::string_view why);

  // Our messages, see NSDistantObject::sendMessage().
  MessageResult sendTwoWay(std::int64_t object, std::string_view selector, const Array& arguments);
  MessageResult sendOneWay(std::int64_t object, std::string_view selector, const Array& arguments);
  std::expected<PeerMessage, NSException> compose(std::int64_t object, std::string_view selector,
                                                  const Array& arguments);
  std::expected<void, NSException> authenticate();

  // The peer's messages.
  void handle(PeerMessage message);
  void handleAuthentication(PeerMessage message);
  struct Request {
    std::shared_ptr<const NSProxy> object;  // null where it is gone
    std::string selector;
    Array arguments;
  };
  // Fails where the message breaks the rules.
  Result<Request> readRequest(const PeerMessage& message);
  MessageResult perform(const Request& request);

  // End the connection for what the peer did, which it is told and the log is: the first before it
  // is trusted, the second after that.
  void refuse(std::unique_ptr<PeerReply> reply, std::string_view why);
  void breakOff(std::unique_ptr<PeerReply> reply, std::string_view why);
  void end(std::unique_ptr<PeerReply> reply, const NSException& why);

  NamedConnections& connections_;
  const Role role_;
  std::string name_;  // that was registered, or looked up
  std::unique_ptr<PeerConnection> peer_;
  std::unique_ptr<PeerListener> listener_;
  const std::weak_ptr<NSConnection> parent_;
  // Shared with their proxies, see above.
  std::vector<std::shared_ptr<NSConnection>> children_;
  std::shared_ptr<const NSProtocolChecker> rootObject_;
  std::weak_ptr<NSDistantObject> rootProxy_;
  RemoteReferences references_;
  NSConnectionDelegate* delegate_ = nullptr;
  Duration replyTimeout_;
  Duration requestTimeout_;
  Stage stage_ = Stage::kUnauthenticated;
  std::size_t nestedRequests_ = 0;
  bool onlyLooks_ = false;  // What it finds out changes nothing for others.
  bool valid_ = true;
};

}  // namespace platform
