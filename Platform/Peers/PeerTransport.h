#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

namespace platform {

// Who connected, as the kernel says: never from a message. The number names the process only while
// PeerConnection::peerLives().
struct PeerCredentials {
  ProcessId process = 0;
  std::uint32_t user = 0;
  std::uint32_t group = 0;

  bool operator==(const PeerCredentials&) const = default;
};

// The right to answer one two-way message. Dropped without an answer, it sends nothing: the caller
// waits until its time-out. Belongs to the loop's thread; may outlive the connection.
class PeerReply {
 public:
  virtual ~PeerReply() = default;

  // Answers; to be called once. Never blocks. Where it fails nothing more is sent:
  //   kInvalid     the result can't travel (the caller gets an NSInvalidArgumentException that says
  //                why)
  //   kExhausted   the peer leaves so much unread that its connection has been closed
  //   kNotFound    the connection has ended
  virtual Result<void> answer(const MessageResult& result) = 0;
};

struct PeerMessage {
  std::string selector;
  Array arguments;
  std::unique_ptr<PeerReply> reply;  // null for a one-way message
};

// What a connection tells its owner, on the loop and never from inside one of the owner's own calls
// but call(). A handler may destroy the connection.
struct PeerHandlers {
  // A message from the peer, in the order of sending. Without this handler two-way messages are
  // answered by an NSInvalidArgumentException.
  std::function<void(PeerMessage)> message;

  // The connection has ended, by the peer or by one of the limits: called once, with
  // Urgency::kConnectionDeath, after what the peer sent before its end has been delivered and the
  // outstanding calls have failed. Not after close(). kNotFound where the peer has ended by itself,
  // kInvalid where it has broken the protocol and was still there, another kind for a limit.
  std::function<void(const Error& why)> death;
};

// One connection to another process. Belongs to the loop's thread. Its destruction closes it;
// nothing calls back afterwards.
//
// A selector is made of letters, digits and colons, and has one argument for each of its colons.
// Arguments and results are values of every kind but remote objects; an argument may be nil. What
// breaks this or the limits of PeerLimits.h is refused before anything is sent. Endpoints travel
// where both sides' options say so; a message with one must fit on the socket as it is.
class PeerConnection {
 public:
  using Completion = std::move_only_function<void(MessageResult)>;

  virtual ~PeerConnection() = default;

  virtual PeerCredentials peer() const = 0;

  // Whether the process in peer() has not ended, so that its number means no other one. Where the
  // kernel can't say (before 6.5), whether there is any process of that number.
  virtual bool peerLives() const = 0;

  // The peer has shown that it belongs here: the time for that ends, its place becomes free, and
  // its messages may be as large as any. Nothing where that has happened, and on a connection that
  // we made ourselves.
  virtual void admit() = 0;

  // Replaces the handlers. To be called before the callback or the call that brought the connection
  // returns to the loop, so that nothing is missed. A death that has happened is still reported.
  virtual void setHandlers(PeerHandlers handlers) = 0;

  // Sends a two-way message and blocks for the answer, for `timeout` at most. Meanwhile messages of
  // this connection are served where its options say so, of others never. Exceptions:
  //   NSPortTimeoutException        no answer in time (a later one is dropped)
  //   NSInvalidSendPortException    the connection has ended, or ends before the answer
  //   NSInvalidArgumentException    the message can't travel, or 128 calls are outstanding
  //   any other                     what the peer raised
  virtual MessageResult call(std::string_view selector, const Array& arguments,
                             Duration timeout) = 0;

  // The same without blocking: the completion runs once, on the loop, never from inside this call.
  // Not after close(). A time-out of Duration::max() is none.
  virtual void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                         Completion completion) = 0;

  // Sends a one-way message. Never blocks. Fails with kInvalid where the message can't travel, with
  // kExhausted where the peer leaves too much unread (this message is not sent, the connection
  // stays), with kNotFound where the connection has ended.
  virtual Result<void> send(std::string_view selector, const Array& arguments) = 0;

  // Ends the connection. What the peer has not read yet may be lost. Nothing calls back afterwards;
  // a call() under way raises NSInvalidSendPortException.
  virtual void close() = 0;
};

// A name that peers connect to. Its destruction takes the name away (unless it was handed to us)
// and ends the connections that it has not handed on; those it has are their owners'.
class PeerListener {
 public:
  virtual ~PeerListener() = default;
};

// What a connection does with incoming messages while it waits in call().
enum class WhileWaiting { kServe, kServeNothing };

struct PeerListenerOptions {
  std::uint32_t socketMode = 0600;  // who may connect by the name: those who may write it
  WhileWaiting whileWaiting = WhileWaiting::kServeNothing;
  Duration admissionTime = kPeerAdmissionTime;
  // Root and our own user are not bound by it.
  std::size_t connectionsPerUser = kMaxPeerConnectionsPerUser;
  PeerMessageContents contents = PeerMessageContents::kValues;
};

struct PeerConnectOptions {
  Duration timeout = std::chrono::seconds(5);
  WhileWaiting whileWaiting = WhileWaiting::kServe;
  PeerMessageContents contents = PeerMessageContents::kValues;
};

// Why there is no connection.
struct PeerConnectFailure {
  enum class Kind {
    kNobodyThere,  // no such name, or its owner has gone
    kRefused,      // we may not connect, or the other side closed at once
    kTimedOut,     // the other side is there and did not answer in time
    kSystem,       // this system has no room, or the name can't be one
  };
  Kind kind = Kind::kSystem;
  Error error;
};

// Makes connections between processes of this machine. They live on one run loop and must not
// outlive it.
class PeerTransport {
 public:
  // A peer has connected; not yet admitted. Dropping the connection refuses it.
  using NewConnection = std::function<void(std::unique_ptr<PeerConnection>)>;

  virtual ~PeerTransport() = default;

  // Takes the name `path`, in a folder that exists. Every user is let in (what the socket's mode
  // lets through): telling them apart is the owner's business, who calls admit(). The callback runs
  // on the loop and may destroy the listener.
  //
  // Fails with kDenied where a live owner has the name (EADDRINUSE) or the folder may not be
  // written, with kNotFound without that folder, with kInvalid where something that is no socket
  // has the name, with kExhausted without descriptors. A dead owner's leftover is replaced. Blocks
  // for a second at most, where another process is replacing a leftover.
  [[nodiscard]] virtual Result<std::unique_ptr<PeerListener>> listen(
      const std::string& path, const PeerListenerOptions& options, NewConnection onConnection) = 0;

  // The same on a listening socket that this process was started with, which becomes the
  // listener's; it keeps its name. Once in a process. Fails with kInvalid where that is not what
  // the descriptor is.
  [[nodiscard]] virtual Result<std::unique_ptr<PeerListener>> listenOn(
      Descriptor passed, const PeerListenerOptions& options, NewConnection onConnection) = 0;

  // A listener without a name. Whoever holds its endpoint may connect, whatever the options' mode.
  struct Anonymous {
    std::unique_ptr<PeerListener> listener;
    std::shared_ptr<const NSXPCListenerEndpoint> endpoint;  // shared with those it is handed to
  };
  // Fails with kExhausted without descriptors, with kSystem where no socket can be made.
  [[nodiscard]] virtual Result<Anonymous> listenAnonymously(const PeerListenerOptions& options,
                                                            NewConnection onConnection) = 0;

  // Connects to the name `path`, and returns when the other side's owner has the connection. Blocks
  // for the time-out at most and serves nothing meanwhile, so a listener of this same loop can't be
  // reached by it.
  [[nodiscard]] virtual std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> connect(
      const std::string& path, const PeerConnectOptions& options) = 0;

  // The same for the listener that the endpoint is of; one that has ended is kNobodyThere.
  [[nodiscard]] virtual std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure>
  connectToEndpoint(const NSXPCListenerEndpoint& endpoint, const PeerConnectOptions& options) = 0;
};

}  // namespace platform
