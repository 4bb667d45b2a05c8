#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/DBus/DBusSources.h"
#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/UnreadFiles.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Peers/PeerPlaces.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/Peers/PeerTurns.h"
#include "Platform/Values/Error.h"

namespace platform {

// Either end of a connection between processes, from its socket to its end. The owner's
// PeerConnection refers to it. Any handler may destroy the connection, so the link is shared with
// it, with pending replies, with its listener until that has handed it on, and with its own running
// calls.
class DBusPeerLink final : public std::enable_shared_from_this<DBusPeerLink> {
 public:
  // Places that a listener lends to a connection: until it is admitted or ends, except that it
  // counts in its user's account until it has ended and all its requests have been answered or
  // dropped. So nobody gets room for more requests by connecting again.
  struct Lease {
    std::unique_ptr<PeerPlaces::Place> place;
    std::unique_ptr<PeerAccounts::Held> account;
    std::unique_ptr<RunLoopHandle> admissionTimer;
    Duration messageTime = kPeerMessageTime;
  };

  // The accepting side serves its peer in `turns`.
  static Result<std::shared_ptr<DBusPeerLink>> create(AsioRunLoop& loop,
                                                      UniqueDBusConnection connection,
                                                      WhileWaiting whileWaiting,
                                                      PeerMessageContents contents,
                                                      std::shared_ptr<PeerTurns> turns = nullptr);

  DBusPeerLink(AsioRunLoop& loop, UniqueDBusConnection connection, WhileWaiting whileWaiting,
               PeerMessageContents contents, int socket);
  DBusPeerLink(const DBusPeerLink&) = delete;
  DBusPeerLink& operator=(const DBusPeerLink&) = delete;

  // For the connecting side: waits until the other side's owner has the connection, which the
  // answer to a ping shows. Nothing large may be sent before: the other side limits it, and libdbus
  // loses descriptors that arrive together with the end of the authentication. False if the
  // connection has ended or at `deadline`; isConnected() tells which.
  bool awaitWelcome(Instant deadline);

  // For the accepting side: `authenticated` is called on the loop once the peer has authenticated,
  // and `gone` if it ends before that.
  void awaitPeer(Lease lease, std::function<void()> authenticated, std::function<void()> gone);

  // The operations of PeerConnection.
  PeerCredentials peer() const { return peer_; }
  PeerState peerState() const;
  // Whether the peer belongs to an audience of ours.
  bool isIn(const PeerAudience& audience) const;
  void admit();
  void setHandlers(PeerHandlers handlers);
  MessageResult call(std::string_view selector, const Array& arguments, Duration timeout);
  void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                 PeerConnection::Completion completion);
  Result<void> send(std::string_view selector, const Array& arguments);
  void close();

  // Ends the connection because of an error of the peer, and reports it to the owner.
  void refuse(Error why);

  Result<void> answer(std::uint32_t serial, const MessageResult& result);
  void releaseAnswer();

  bool isConnected() const;

 private:
  // A pending call of ours. A blocking one waits in call() and finds its answer here.
  struct Outstanding {
    PeerConnection::Completion completion;  // empty for a blocking call
    std::unique_ptr<RunLoopHandle> timer;
    UniqueDBusMessage answer;
  };
  class Reply;

  std::optional<bool> processLives(bool hasEnded) const;
  void allowMessages(std::size_t bytes, std::size_t descriptors);
  bool mayPassDescriptors(std::uint32_t from, std::uint32_t to) const;
  void handled(unsigned flags);
  void messageIsLate();
  bool account(std::size_t moreBytes = 0, std::size_t moreCalls = 0);
  void endAccount();
  void limitReading();
  std::size_t fileLimit() const;
  void dispatch();
  void handOn();
  void collect();
  bool deliverOne();
  bool serveOneRequest();
  void deliverRequest(UniqueDBusMessage message);
  void deliverAnswer(UniqueDBusMessage message);
  MessageResult awaitAnswer(std::uint32_t serial, Instant deadline, WhileWaiting whileWaiting);
  void expire(std::uint32_t serial);
  bool hasAnswerTo(std::uint32_t serial) const;
  bool waitForRoom(Instant deadline);
  bool waitOnce(Instant deadline);
  bool hasRoom(const EncodedMessage& message);
  // Whether the peer takes descriptors, if the message has some.
  bool canBeSent(const EncodedMessage& message);
  Result<std::uint32_t> transmit(const EncodedMessage& message);
  void scheduleDeath(Error why);
  void die();
  bool deliverBeforeDeath();
  void finish();
  void dropConnection();
  void reportDeath();
  void failOutstanding();

  AsioRunLoop& loop_;
  PeerCredentials peer_;
  const int socket_;
  const WhileWaiting whileWaiting_;
  const PeerMessageContents contents_;
  UniqueDBusConnection connection_;
  std::unique_ptr<DBusSources> sources_;  // Destroyed before the connection.
  bool authenticated_ = false;
  std::function<void()> onAuthenticated_;
  std::function<void()> onGone_;
  Lease lease_;

  std::shared_ptr<PeerHandlers> handlers_;  // shared with a running handler that may replace them
  std::list<UniqueDBusMessage> inbox_;      // read, not yet delivered; libdbus limits their bytes
  std::map<std::uint32_t, Outstanding> outstanding_;
  std::size_t answersOwed_ = 0;
  std::size_t unfinishedBytes_ = 0;  // of a message that is not whole, at most
  std::unique_ptr<RunLoopHandle> messageTimer_;
  UnreadFiles unreadFiles_;

  bool admitted_ = false;
  bool readsMessages_ = false;  // it was authenticated at the last reading
  bool ended_ = false;          // nothing more is sent or read
  bool finished_ = false;       // pending calls have failed, the death is known
  bool closed_ = false;         // by its owner: no more callbacks
  std::optional<Error> deathToReport_;
};

}  // namespace platform
