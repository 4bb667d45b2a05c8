#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerAudience.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

namespace platform {

// The credentials of the process that connected, by the kernel and never by a message. The number
// names the process only until it has ended: see PeerConnection::peerState().
struct PeerCredentials {
  ProcessId process = 0;
  std::uint32_t user = 0;
  std::uint32_t group = 0;

  bool operator==(const PeerCredentials&) const = default;
};

// The process that connected, by the kernel's present word.
enum class PeerState {
  kUnchanged,  // it lives, and has the user that it connected as; also if the kernel can't tell, as
               // for a process of another pid namespace
  kOtherUser,  // it has become another user's, for instance because it has given up its rights
  kPassedOn,   // it has ended, and another process has its end of the connection
  kEnded,      // it has ended, or at least the connection
  kUnknown,    // this process has no descriptor or memory left to ask
};

// The right to answer one two-way message. If it is dropped without an answer, nothing is sent: the
// caller waits until its time-out. Belongs to the loop's thread; may outlive the connection.
class PeerReply {
 public:
  virtual ~PeerReply() = default;

  // Answers; call it once. Never blocks. If it fails, nothing more is sent:
  //   kInvalid     the result can't be sent (the caller gets an NSInvalidArgumentException with the
  //                reason)
  //   kExhausted   the peer leaves so much unread that its connection has been closed
  //   kNotFound    the connection has ended
  virtual Result<void> answer(const MessageResult& result) = 0;
};

struct PeerMessage {
  std::string selector;
  Array arguments;
  std::unique_ptr<PeerReply> reply;  // null for a one-way message
};

// The events of a connection for its owner. They are delivered on the loop and never from inside
// the owner's own calls, except call(). A handler may destroy the connection.
struct PeerHandlers {
  // A message from the peer, in the order of sending. Without this handler two-way messages are
  // answered by an NSInvalidArgumentException.
  std::function<void(PeerMessage)> message;

  // The connection has ended, by the peer or by one of the limits. Called once, with
  // Urgency::kConnectionDeath, after the messages that the peer sent before its end have been
  // delivered and pending calls have failed; not after close(). The code is kNotFound if the peer
  // has ended by itself, kInvalid if it has broken the protocol without closing, and another code
  // for a limit.
  std::function<void(const Error& why)> death;
};

// One connection to another process. Belongs to the loop's thread. The destructor closes it; no
// callback runs afterwards.
//
// A selector consists of letters, digits and colons, and has one argument for each of its colons.
// Arguments and results are values of every kind except remote objects; an argument may be nil. A
// message that breaks this or the limits of PeerLimits.h is refused before anything is sent.
// Endpoints can be sent if the options of both sides permit it; a message with one must fit on the
// socket without a memory file.
class PeerConnection {
 public:
  using Completion = std::move_only_function<void(MessageResult)>;

  virtual ~PeerConnection() = default;

  virtual PeerCredentials peer() const = 0;

  // Whether the number in peer() still means that process, and whose it is. Before Linux 6.5 a
  // later process that has got that number and has that user passes.
  virtual PeerState peerState() const = 0;

  // The peer has shown that it may use this listener: its admission time ends, its place becomes
  // free, and its messages may have the full size. Does nothing if that has happened, and on a
  // connection that we made ourselves.
  virtual void admit() = 0;

  // Replaces the handlers. To miss nothing, call it before the callback or call that supplied the
  // connection returns to the loop. A death that has happened is still reported.
  virtual void setHandlers(PeerHandlers handlers) = 0;

  // Sends a two-way message and blocks for the answer, for at most `timeout`. Meanwhile messages of
  // this connection are served if its options say so, and messages of others never. Exceptions:
  //   NSPortTimeoutException        no answer in time (a later one is dropped)
  //   NSInvalidSendPortException    the connection has ended, or ends before the answer
  //   NSInvalidArgumentException    the message can't be sent, or 128 calls are pending
  //   any other                     the exception that the peer raised
  virtual MessageResult call(std::string_view selector, const Array& arguments,
                             Duration timeout) = 0;

  // Like call(), but does not block: the completion runs once, on the loop, never from inside this
  // call, and not after close(). Duration::max() means no time-out. An answer that has arrived when
  // the time-out is served is in time: this process may have been busy.
  virtual void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                         Completion completion) = 0;

  // Sends a one-way message. Never blocks. Fails with kInvalid if the message can't be sent, with
  // kExhausted if the peer leaves too much unread (this message is not sent, the connection stays),
  // and with kNotFound if the connection has ended.
  virtual Result<void> send(std::string_view selector, const Array& arguments) = 0;

  // Ends the connection. Data that the peer has not read yet may be lost. No callback runs
  // afterwards; a running call() raises NSInvalidSendPortException.
  virtual void close() = 0;
};

// A name to which peers connect. The destructor removes the name (unless the socket was passed to
// us) and ends the connections that have not been handed on; the others belong to their owners.
class PeerListener {
 public:
  virtual ~PeerListener() = default;
};

// Whether a connection serves incoming messages while it waits in call().
enum class WhileWaiting { kServe, kServeNothing };

struct PeerListenerOptions {
  // The mode of the socket is the first gate, the check of each peer's credentials the second.
  PeerAudience audience = {};
  // Instead of the audience's mode, for a listener that tells others why it does not serve them.
  std::optional<std::uint32_t> socketMode = {};
  // Called on the loop for a peer that the audience excludes; its connection is closed.
  std::function<void(const PeerCredentials&)> excluded = {};
  WhileWaiting whileWaiting = WhileWaiting::kServeNothing;
  Duration admissionTime = kPeerAdmissionTime;
  Duration messageTime = kPeerMessageTime;
  PeerMessageContents contents = PeerMessageContents::kValues;
};

struct PeerConnectOptions {
  Duration timeout = std::chrono::seconds(5);
  WhileWaiting whileWaiting = WhileWaiting::kServe;
  PeerMessageContents contents = PeerMessageContents::kValues;
  // The users whose listeners are trusted. Any other one is kRefused before anything is sent to it.
  PeerAudience servers = {};
};

// The reason why there is no connection.
struct PeerConnectFailure {
  enum class Kind {
    kNobodyThere,  // there is no such name, or its owner has ended
    kRefused,      // no permission to connect, an owner that is not trusted, or closed at once
    kTimedOut,     // the other side runs and did not answer in time
    kSystem,       // this system has no room, or the name is not valid
  };
  Kind kind = Kind::kSystem;
  Error error;
};

// Makes connections between processes of this machine. They belong to one run loop and must not
// outlive it.
class PeerTransport {
 public:
  // A peer has connected and is not admitted yet. Dropping the connection rejects it.
  using NewConnection = std::function<void(std::unique_ptr<PeerConnection>)>;

  virtual ~PeerTransport() = default;

  // Takes the name `path` in an existing folder. Peers outside of the audience are closed; for the
  // others the owner decides and calls admit(). The callback runs on the loop and may destroy the
  // listener.
  //
  // Fails with kDenied if a live owner has the name (EADDRINUSE) or the folder is not writable,
  // with kNotFound if there is no such folder, with kInvalid if a file that is not a socket has the
  // name, and with kExhausted without descriptors. The socket of a dead owner is replaced. Blocks
  // for at most a second, while another process replaces such a socket.
  [[nodiscard]] virtual Result<std::unique_ptr<PeerListener>> listen(
      const std::string& path, const PeerListenerOptions& options, NewConnection onConnection) = 0;

  // The same on a listening socket with which this process was started. The listener owns it; it
  // keeps its name. Only once in a process. Fails with kInvalid if the descriptor is anything else.
  [[nodiscard]] virtual Result<std::unique_ptr<PeerListener>> listenOn(
      Descriptor passed, const PeerListenerOptions& options, NewConnection onConnection) = 0;

  // A listener without a name. The holders of its endpoint may connect, whatever the options' mode.
  struct Anonymous {
    std::unique_ptr<PeerListener> listener;
    std::shared_ptr<const NSXPCListenerEndpoint> endpoint;  // shared with its receivers
  };
  // Fails with kExhausted without descriptors, and with kSystem if no socket can be made.
  [[nodiscard]] virtual Result<Anonymous> listenAnonymously(const PeerListenerOptions& options,
                                                            NewConnection onConnection) = 0;

  // Connects to the name `path` and returns when the other side's owner has the connection. Blocks
  // for at most the time-out and serves nothing meanwhile, so it can't reach a listener of this
  // same loop.
  [[nodiscard]] virtual std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> connect(
      const std::string& path, const PeerConnectOptions& options) = 0;

  // The same for the listener of an endpoint; an ended one is kNobodyThere.
  [[nodiscard]] virtual std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure>
  connectToEndpoint(const NSXPCListenerEndpoint& endpoint, const PeerConnectOptions& options) = 0;
};

}  // namespace platform
