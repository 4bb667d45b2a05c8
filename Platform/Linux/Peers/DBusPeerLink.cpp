#include "Platform/Linux/Peers/DBusPeerLink.h"

#include <algorithm>
#include <deque>
#include <string>
#include <tuple>
#include <utility>

#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {

namespace {

// The most messages of a dead peer that are delivered at once. Other timers and peers wait for
// them.
constexpr int kMessagesPerDeath = 4;

bool isAnswer(DBusMessage* message) {
  const int type = dbus_message_get_type(message);
  return type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
}

}  // namespace

// A pending reply. It counts against the peer until it is given or dropped.
class DBusPeerLink::Reply final : public PeerReply {
 public:
  Reply(std::shared_ptr<DBusPeerLink> link, std::uint32_t serial)
      : link_(std::move(link)), serial_(serial) {}
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  ~Reply() override {
    if (link_) link_->releaseAnswer();
  }

  Result<void> answer(const MessageResult& result) override {
    const std::shared_ptr<DBusPeerLink> link = std::move(link_);
    if (!link) return std::unexpected(Error{ErrorCode::kInvalid, 0, "a second answer"});
    link->releaseAnswer();
    return link->answer(serial_, result);
  }

 private:
  std::shared_ptr<DBusPeerLink> link_;  // null after the answer
  const std::uint32_t serial_;
};

Result<std::shared_ptr<DBusPeerLink>> DBusPeerLink::create(AsioRunLoop& loop,
                                                           UniqueDBusConnection connection,
                                                           WhileWaiting whileWaiting,
                                                           PeerMessageContents contents,
                                                           std::shared_ptr<PeerTurns> turns) {
  int socket = -1;
  if (!dbus_connection_get_socket(connection.get(), &socket)) {
    return std::unexpected(Error{ErrorCode::kSystem, 0, "a D-Bus connection without a socket"});
  }
  const auto peer = peerOfSocket(socket, "SO_PEERCRED");
  if (!peer) return std::unexpected(peer.error());
  auto link =
      std::make_shared<DBusPeerLink>(loop, std::move(connection), whileWaiting, contents, socket);
  link->peer_ = *peer;
  DBusPeerLink* self = link.get();  // The link outlives its sources.
  DBusSources::Callbacks callbacks{.dispatch = [self] { self->dispatch(); },
                                   .peerEnded = [self] { self->die(); },
                                   .handled = [self](unsigned flags) { self->handled(flags); }};
  if (turns) {
    callbacks.post = [turns = std::move(turns), user = peer->user](PeerTurns::Turn dispatch) {
      turns->request(user, std::move(dispatch));
    };
  }
  auto sources = DBusSources::attach(loop, link->connection_.get(), std::move(callbacks));
  if (!sources) return std::unexpected(std::move(sources.error()));
  link->sources_ = std::move(*sources);
  return link;
}

DBusPeerLink::DBusPeerLink(AsioRunLoop& loop, UniqueDBusConnection connection,
                           WhileWaiting whileWaiting, PeerMessageContents contents, int socket)
    : loop_(loop),
      socket_(socket),
      whileWaiting_(whileWaiting),
      contents_(contents),
      connection_(std::move(connection)),
      handlers_(std::make_shared<PeerHandlers>()),
      unreadFiles_(socket) {
  dbus_connection_set_exit_on_disconnect(connection_.get(), false);
  dbus_connection_set_max_received_unix_fds(connection_.get(), kMaxPeerDescriptors);
  allowMessages(kMaxPeerMessageBytes, kMaxPeerDescriptors);
}

// The limit of unhandled messages is one largest message. With the one being handled, a peer can
// thus make us hold two.
void DBusPeerLink::allowMessages(std::size_t bytes, std::size_t descriptors) {
  dbus_connection_set_max_message_size(connection_.get(), static_cast<long>(bytes));
  dbus_connection_set_max_received_size(connection_.get(), static_cast<long>(bytes));
  dbus_connection_set_max_message_unix_fds(connection_.get(), static_cast<long>(descriptors));
}

bool DBusPeerLink::isConnected() const {
  return !ended_ && dbus_connection_get_is_connected(connection_.get());
}

void DBusPeerLink::awaitPeer(Lease lease, std::function<void()> authenticated,
                             std::function<void()> gone) {
  lease_ = std::move(lease);
  onAuthenticated_ = std::move(authenticated);
  onGone_ = std::move(gone);
  // Descriptors are refused, too: a memory file could hold far more than the message may.
  allowMessages(kMaxUnadmittedPeerMessageBytes, 0);
  // Only libdbus knows when the peer has authenticated. Querying it in this callback would recurse
  // without end.
  dbus_connection_set_unix_user_function(
      connection_.get(),
      [](DBusConnection*, unsigned long, void* self) -> dbus_bool_t {
        auto* link = static_cast<DBusPeerLink*>(self);
        link->authenticated_ = true;
        if (link->sources_) link->sources_->scheduleDispatch();
        return true;  // Accept all users; the layers above tell them apart.
      },
      this, nullptr);
}

void DBusPeerLink::setHandlers(PeerHandlers handlers) {
  handlers_ = std::make_shared<PeerHandlers>(std::move(handlers));
  if (!finished_ || !deathToReport_) return;
  loop_.post(
      [weak = weak_from_this()] {
        if (const auto link = weak.lock()) link->reportDeath();
      },
      Urgency::kConnectionDeath);
}

void DBusPeerLink::dispatch() {
  const auto self = shared_from_this();
  if (ended_) return;
  if (authenticated_ && onAuthenticated_) {
    sources_->scheduleDispatch();  // Its messages come in a turn of their own.
    return handOn();
  }
  if (!authenticated_ && !isConnected()) return die();
  if (!authenticated_) return;
  collect();
  limitReading();
  if (inbox_.empty() && !dbus_connection_get_is_connected(connection_.get())) {
    return scheduleDeath(sources_->wasGivenUp()
                             ? Error{ErrorCode::kInvalid, 0, "the peer has broken the protocol"}
                             : Error{ErrorCode::kNotFound, 0, "the peer has ended"});
  }
  deliverOne();
  limitReading();
  const bool goesOn = !ended_ && (!inbox_.empty() || !isConnected());
  if (goesOn) sources_->scheduleDispatch();
}

void DBusPeerLink::handOn() {
  onGone_ = nullptr;
  std::exchange(onAuthenticated_, nullptr)();
}

// Takes the messages that libdbus has read. Answers to blocking calls are stored for them at once.
void DBusPeerLink::collect() {
  while (UniqueDBusMessage message{dbus_connection_pop_message(connection_.get())}) {
    if (dbus_message_is_signal(message.get(), DBUS_INTERFACE_LOCAL, "Disconnected")) continue;
    if (isAnswer(message.get())) {
      const auto found = outstanding_.find(dbus_message_get_reply_serial(message.get()));
      if (found == outstanding_.end()) continue;  // The call has timed out.
      if (!found->second.completion) {
        found->second.answer = std::move(message);
        continue;
      }
    }
    inbox_.push_back(std::move(message));
  }
}

bool DBusPeerLink::hasAnswerTo(std::uint32_t serial) const {
  return std::ranges::any_of(inbox_, [serial](const UniqueDBusMessage& message) {
    return isAnswer(message.get()) && dbus_message_get_reply_serial(message.get()) == serial;
  });
}

bool DBusPeerLink::deliverOne() {
  if (inbox_.empty()) return false;
  UniqueDBusMessage message = std::move(inbox_.front());
  inbox_.pop_front();
  if (isAnswer(message.get())) {
    deliverAnswer(std::move(message));
  } else {
    deliverRequest(std::move(message));
  }
  return true;
}

bool DBusPeerLink::serveOneRequest() {
  const auto found = std::ranges::find_if_not(
      inbox_, [](const UniqueDBusMessage& message) { return isAnswer(message.get()); });
  if (found == inbox_.end()) return false;
  UniqueDBusMessage message = std::move(*found);
  inbox_.erase(found);
  deliverRequest(std::move(message));
  return true;
}

void DBusPeerLink::deliverRequest(UniqueDBusMessage message) {
  const bool twoWay = wantsAnswer(message.get());
  const std::uint32_t serial = dbus_message_get_serial(message.get());
  if (dbus_message_is_method_call(message.get(), DBUS_INTERFACE_PEER, "Ping")) {
    if (twoWay) std::ignore = answer(serial, Value());
    return;
  }
  auto decoded = decodeMessage(message.get(), contents_, fileLimit());
  message.reset();  // Its bytes no longer count as unread.
  const auto handlers = handlers_;
  std::string problem;
  if (!decoded) {
    problem = describe(decoded.error());
  } else if (!handlers->message) {
    problem = "This side takes no messages.";
  } else if (twoWay && (answersOwed_ >= kMaxPeerCallsAwaitingReply || !account(0, 1))) {
    problem = "Too many calls await their answer.";
  }
  if (!problem.empty()) {
    if (twoWay) std::ignore = answer(serial, raised(kNSInvalidArgumentException, problem));
    return;
  }
  if (twoWay) {
    ++answersOwed_;
    decoded->reply = std::make_unique<Reply>(shared_from_this(), serial);
  }
  handlers->message(std::move(*decoded));
}

void DBusPeerLink::deliverAnswer(UniqueDBusMessage message) {
  auto answered = outstanding_.extract(dbus_message_get_reply_serial(message.get()));
  if (answered.empty()) return;
  const MessageResult result = decodeAnswer(message.get(), contents_, fileLimit());
  message.reset();
  answered.mapped().completion(result);
}

void DBusPeerLink::releaseAnswer() {
  --answersOwed_;
  if (ended_) {
    endAccount();
  } else {
    account();
  }
}

void DBusPeerLink::close() {
  closed_ = true;
  handlers_ = std::make_shared<PeerHandlers>();
  deathToReport_.reset();
  onAuthenticated_ = nullptr;
  onGone_ = nullptr;
  dropConnection();
  // A completion may hold this connection's owner, so destroy none of them while iterating.
  const auto dropped = std::exchange(outstanding_, {});
}

void DBusPeerLink::refuse(Error why) {
  if (ended_) return;
  inbox_.clear();
  dropConnection();
  scheduleDeath(std::move(why));
}

void DBusPeerLink::dropConnection() {
  ended_ = true;
  lease_.place.reset();
  lease_.admissionTimer.reset();
  endAccount();
  inbox_.clear();
  sources_.reset();
  if (connection_) dbus_connection_close(connection_.get());
}

void DBusPeerLink::scheduleDeath(Error why) {
  deathToReport_ = std::move(why);
  loop_.post(
      [weak = weak_from_this()] {
        if (const auto link = weak.lock()) link->die();
      },
      Urgency::kConnectionDeath);
}

void DBusPeerLink::die() {
  const auto self = shared_from_this();
  if (closed_ || finished_) return;
  // Messages that the peer sent before its end are delivered first, even the end of its
  // authentication. If there are many, dispatch() goes on with them and then reports the death.
  for (int left = kMessagesPerDeath; !ended_; --left) {
    if (left == 0) return sources_->scheduleDispatch();
    if (!deliverBeforeDeath()) break;
  }
  if (!closed_ && !finished_) finish();
}

// False if there is nothing left.
bool DBusPeerLink::deliverBeforeDeath() {
  for (;;) {
    if (ended_) return false;
    if (authenticated_ && onAuthenticated_) {
      handOn();
      return true;
    }
    if (authenticated_) {
      collect();
      if (deliverOne()) return true;
    }
    if (!isConnected() || sources_->handleWithin(Duration::zero()) != DBusSources::Handled::kSome) {
      return false;
    }
  }
}

void DBusPeerLink::finish() {
  finished_ = true;
  if (!deathToReport_) deathToReport_ = Error{ErrorCode::kNotFound, 0, "the peer has ended"};
  if (!ended_) dropConnection();
  if (onGone_) {
    onAuthenticated_ = nullptr;
    const auto gone = std::exchange(onGone_, nullptr);
    return gone();
  }
  failOutstanding();
  if (!closed_) reportDeath();
}

void DBusPeerLink::failOutstanding() {
  // Blocking calls check `ended_` themselves.
  std::deque<Outstanding> failing;
  for (auto& [serial, entry] : outstanding_) {
    if (entry.completion) failing.push_back(std::move(entry));
  }
  std::erase_if(outstanding_, [](const auto& entry) { return !entry.second.completion; });
  for (Outstanding& entry : failing) {
    if (closed_) return;
    entry.completion(raisedGone());
  }
}

void DBusPeerLink::reportDeath() {
  const auto handlers = handlers_;
  if (closed_ || !deathToReport_ || !handlers->death) return;
  const Error why = *std::exchange(deathToReport_, std::nullopt);
  handlers->death(why);
}

}  // namespace platform
