// One file, because ends, listeners and transports are one state machine: a handler of each may
// destroy the others.

#include "Platform/Testing/Peers/FakePeerTransport.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <tuple>
#include <utility>

#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerMessageRules.h"
#include "Platform/Peers/PeerPlaces.h"

namespace platform {

namespace {

// The most messages of a dead peer that are delivered at once, as on the real transport.
constexpr int kMessagesPerDeath = 4;

// A name that can't be guessed.
class FakeEndpoint final : public NSXPCListenerEndpoint {
 public:
  FakeEndpoint(std::string path, std::weak_ptr<const void> listener)
      : path_(std::move(path)), listener_(std::move(listener)) {}
  const std::string& path() const { return path_; }
  bool hasListener() const override { return !listener_.expired(); }

 private:
  const std::string path_;
  const std::weak_ptr<const void> listener_;
};

Result<std::size_t> checkedBytes(std::string_view selector, const Array& arguments,
                                 PeerMessageContents contents) {
  if (auto checked = checkPeerSelector(selector, arguments.size()); !checked) {
    return std::unexpected(std::move(checked.error()));
  }
  return peerBodyBytes(arguments, contents);
}

}  // namespace

// One process's side of a connection. Any handler may destroy the connection, so it is shared by
// its owner's connection, its replies, the other side and the loop's posts.
class FakePeerTransport::End final : public std::enable_shared_from_this<End> {
 public:
  struct Item {
    enum class Kind { kRequest, kAnswer } kind;
    std::uint32_t serial = 0;  // 0: wants no answer
    std::string selector;
    Array arguments;
    MessageResult result;
    std::size_t bytes = 0;
  };
  struct Outstanding {
    PeerConnection::Completion completion;  // empty for a blocking call
    std::unique_ptr<RunLoopHandle> timer;
    std::optional<MessageResult> answer;
  };

  End(FakePeerTransport& process, WhileWaiting whileWaiting, PeerMessageContents contents)
      : process_(process), whileWaiting_(whileWaiting), contents_(contents) {}

  VirtualRunLoop& loop() { return process_.network_.loop(); }
  bool isConnected() const { return !ended_ && !other_->ended_; }

  void join(const std::shared_ptr<End>& other) {
    other_ = other;
    peer_ = other->process_.self_;
  }

  void put(Item item) {
    unread_ += item.bytes;
    inbox_.push_back(std::move(item));
    post(Urgency::kOrdinary);
  }

  // Serves one item, or the end; each item has its own post.
  void post(Urgency urgency) {
    auto turn = [weak = weak_from_this(), urgency] {
      const auto self = weak.lock();
      if (!self || !self->process_.mayServe(self.get())) return false;
      if (urgency == Urgency::kConnectionDeath) {
        self->die();
        return true;
      }
      const bool isServed = self->deliverOne();
      if (self->isDying_ && self->inbox_.empty()) self->post(Urgency::kConnectionDeath);
      return isServed;
    };
    if (account_ && urgency == Urgency::kOrdinary) {
      return process_.turns_->request(peer_.user, std::move(turn));
    }
    loop().post([turn = std::move(turn)] { std::ignore = turn(); }, urgency);
  }

  bool deliverOne() {
    if (inbox_.empty() || ended_) return false;
    Item item = std::move(inbox_.front());
    inbox_.pop_front();
    deliver(std::move(item));
    return true;
  }

  // While this process waits, answers to asynchronous calls are left to the loop.
  bool serveOneRequest() {
    const auto found = std::ranges::find_if(
        inbox_, [](const Item& item) { return item.kind == Item::Kind::kRequest; });
    if (found == inbox_.end()) return false;
    Item item = std::move(*found);
    inbox_.erase(found);
    deliver(std::move(item));
    return true;
  }

  void deliver(Item item);
  void deliverRequest(Item item);
  MessageResult call(std::string_view selector, const Array& arguments, Duration timeout);
  void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                 PeerConnection::Completion completion);
  Result<void> send(std::string_view selector, const Array& arguments);
  Result<void> answer(std::uint32_t serial, const MessageResult& result);
  bool transmit(Item item);
  void takeAnswers();

  void endHere() {
    if (std::exchange(ended_, true)) return;
    admissionTimer_.reset();
    place_.reset();
    endAccount();
    inbox_.clear();
    if (!other_->ended_) return other_->post(Urgency::kConnectionDeath);
    // The sides no longer need each other.
    const auto other = std::move(other_);
    other->other_.reset();
  }
  // Takes what the connection costs now, and so many more calls. False if the user may not have
  // that.
  bool account(std::size_t moreCalls = 0) {
    if (!account_) return true;
    return account_->change({.connections = 1,
                             .descriptors = 1 + (admitted_ ? kMaxPeerDescriptors : 0),
                             .calls = answersOwed_ + moreCalls});
  }
  void endAccount() {
    if (answersOwed_ == 0) {
      account_.reset();
    } else if (account_) {
      account_->change({.connections = 1, .calls = answersOwed_});
    }
  }
  void releaseAnswer() {
    --answersOwed_;
    if (ended_) {
      endAccount();
    } else {
      account();
    }
  }
  void close() {
    closed_ = true;
    handlers_ = std::make_shared<PeerHandlers>();
    endHere();
    const auto dropped = std::exchange(outstanding_, {});
  }
  void refuse(Error why) {
    if (ended_) return;
    death_ = std::move(why);
    endHere();
    post(Urgency::kConnectionDeath);
  }
  void die();
  void reportDeath();

  FakePeerTransport& process_;
  const WhileWaiting whileWaiting_;
  const PeerMessageContents contents_;
  PeerCredentials peer_;
  std::shared_ptr<End> other_;  // until both have ended
  std::shared_ptr<PeerHandlers> handlers_ = std::make_shared<PeerHandlers>();
  std::unique_ptr<PeerPlaces::Place> place_;
  std::unique_ptr<PeerAccounts::Held> account_;  // of the accepting side
  std::unique_ptr<RunLoopHandle> admissionTimer_;
  bool admitted_ = true;
  bool isDying_ = false;  // the peer has ended, and its last messages are being delivered

  std::deque<Item> inbox_;
  std::size_t unread_ = 0;  // bytes that the other side has sent and this side has not read
  std::map<std::uint32_t, Outstanding> outstanding_;
  std::uint32_t lastSerial_ = 0;
  std::size_t answersOwed_ = 0;
  bool ended_ = false;
  bool finished_ = false;
  bool closed_ = false;
  std::optional<Error> death_;
};

class FakePeerTransport::Reply final : public PeerReply {
 public:
  Reply(std::shared_ptr<End> end, std::uint32_t serial) : end_(std::move(end)), serial_(serial) {}
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  ~Reply() override {
    if (end_) end_->releaseAnswer();
  }

  Result<void> answer(const MessageResult& result) override {
    const auto end = std::move(end_);
    if (!end) return std::unexpected(Error{ErrorCode::kInvalid, 0, "a second answer"});
    end->releaseAnswer();
    return end->answer(serial_, result);
  }

 private:
  std::shared_ptr<End> end_;  // null after the answer
  const std::uint32_t serial_;
};

void FakePeerTransport::End::deliver(Item item) {
  unread_ -= item.bytes;
  if (item.kind == Item::Kind::kRequest) return deliverRequest(std::move(item));
  const auto found = outstanding_.find(item.serial);
  if (found == outstanding_.end()) return;  // The call has timed out.
  if (!found->second.completion) {
    found->second.answer = std::move(item.result);
    return;
  }
  auto answered = outstanding_.extract(found);
  answered.mapped().completion(std::move(item.result));
}

void FakePeerTransport::End::deliverRequest(Item item) {
  const auto handlers = handlers_;
  const char* problem = nullptr;
  if (!handlers->message) {
    problem = "This side takes no messages.";
  } else if (item.serial != 0 && (answersOwed_ >= kMaxPeerCallsAwaitingReply || !account(1))) {
    problem = "Too many calls await their answer.";
  }
  if (problem != nullptr) {
    if (item.serial != 0) {
      std::ignore = answer(item.serial, raised(kNSInvalidArgumentException, problem));
    }
    return;
  }
  PeerMessage message{std::move(item.selector), std::move(item.arguments), nullptr};
  if (item.serial != 0) {
    ++answersOwed_;
    message.reply = std::make_unique<Reply>(shared_from_this(), item.serial);
  }
  handlers->message(std::move(message));
}

// False if the other side leaves too much unread.
bool FakePeerTransport::End::transmit(Item item) {
  const bool inFile = item.bytes + kPeerMessageHeaderBytes > kMaxPeerMessageBytes;
  item.bytes = (inFile ? 0 : item.bytes) + kPeerMessageHeaderBytes;
  if (other_->unread_ + item.bytes > kMaxPeerUnreadBytes) return false;
  if (!other_->admitted_ && item.bytes > kMaxUnadmittedPeerMessageBytes) {
    other_->refuse({ErrorCode::kDenied, 0, "too large a message before it belongs here"});
    return true;
  }
  other_->put(std::move(item));
  return true;
}

MessageResult FakePeerTransport::End::call(std::string_view selector, const Array& arguments,
                                           Duration timeout) {
  const auto self = shared_from_this();
  if (!isConnected()) return raisedGone();
  const auto bytes = checkedBytes(selector, arguments, contents_);
  if (!bytes) return raised(kNSInvalidArgumentException, describe(bytes.error()));
  if (outstanding_.size() >= kMaxPeerCallsAwaitingReply) {
    return raised(kNSInvalidArgumentException, "Too many calls await their answer.");
  }
  const std::uint32_t serial = ++lastSerial_;
  outstanding_[serial];
  const Item item{Item::Kind::kRequest, serial, std::string(selector), arguments, {}, *bytes};
  bool sent = false;
  const auto other = other_;
  process_.waitingIn_.push_back(this);
  // First everything that both sides can do at once; then time passes.
  const auto settled = [&] {
    for (bool progress = true; progress;) {
      const bool wasSent = sent;
      if (!sent && isConnected()) sent = transmit(item);
      progress = sent != wasSent;
      if (other->process_.mayServe(other.get())) progress |= other->deliverOne();
      takeAnswers();
      const auto found = outstanding_.find(serial);
      if (ended_ || found == outstanding_.end() || found->second.answer) return true;
      if (whileWaiting_ == WhileWaiting::kServe) progress |= serveOneRequest();
    }
    return !isConnected();
  };
  const bool inTime = loop().waitFor(timeout, settled);
  std::erase(process_.waitingIn_, this);
  auto entry = outstanding_.extract(serial);
  if (process_.waitingIn_.empty()) process_.serveAll();
  if (!entry.empty() && entry.mapped().answer) return *entry.mapped().answer;
  return inTime ? raisedGone() : raisedNoAnswer();
}

// Stores answers for blocking calls at once.
void FakePeerTransport::End::takeAnswers() {
  std::erase_if(inbox_, [this](Item& item) {
    const auto found = outstanding_.find(item.serial);
    if (item.kind != Item::Kind::kAnswer || found == outstanding_.end() ||
        found->second.completion) {
      return false;
    }
    unread_ -= item.bytes;
    found->second.answer = std::move(item.result);
    return true;
  });
}

void FakePeerTransport::End::callAsync(std::string_view selector, const Array& arguments,
                                       Duration timeout, PeerConnection::Completion completion) {
  const auto failLater = [&](NSException why) {
    loop().post([weak = weak_from_this(), why = std::move(why),
                 completion = std::move(completion)]() mutable {
      const auto end = weak.lock();
      if (end && !end->closed_) completion(std::unexpected(std::move(why)));
    });
  };
  if (!isConnected()) return failLater(raisedGone().error());
  const auto bytes = checkedBytes(selector, arguments, contents_);
  if (!bytes) return failLater({kNSInvalidArgumentException, describe(bytes.error()), {}});
  if (outstanding_.size() >= kMaxPeerCallsAwaitingReply) {
    return failLater({kNSInvalidArgumentException, "Too many calls await their answer.", {}});
  }
  const std::uint32_t serial = ++lastSerial_;
  if (!transmit({Item::Kind::kRequest, serial, std::string(selector), arguments, {}, *bytes})) {
    return failLater({kNSPortTimeoutException, "The peer leaves too much unread.", {}});
  }
  Outstanding& entry = outstanding_[serial];
  entry.completion = std::move(completion);
  if (timeout == Duration::max()) return;
  entry.timer = loop().startTimer(timeout, RunLoop::Repeat::kOnce, [this, serial] {
    const bool hasArrived = std::ranges::any_of(inbox_, [serial](const Item& waiting) {
      return waiting.kind == Item::Kind::kAnswer && waiting.serial == serial;
    });
    if (hasArrived) return;
    auto expired = outstanding_.extract(serial);
    if (expired.empty()) return;
    expired.mapped().completion(raisedNoAnswer());
  });
}

Result<void> FakePeerTransport::End::send(std::string_view selector, const Array& arguments) {
  if (!isConnected()) return std::unexpected(connectionEnded());
  const auto bytes = checkedBytes(selector, arguments, contents_);
  if (!bytes) return std::unexpected(bytes.error());
  if (!transmit({Item::Kind::kRequest, 0, std::string(selector), arguments, {}, *bytes})) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, "the peer leaves too much unread"});
  }
  return {};
}

Result<void> FakePeerTransport::End::answer(std::uint32_t serial, const MessageResult& result) {
  if (!isConnected()) return std::unexpected(connectionEnded());
  Item item{Item::Kind::kAnswer, serial, {}, {}, result, 0};
  const auto bytes = result ? peerBodyBytes(result->isNil() ? Array{} : Array{*result}, contents_)
                            : peerBodyBytes(result.error());
  if (bytes) {
    item.bytes = *bytes;
  } else {
    item.result = raised(kNSInvalidArgumentException,
                         "An answer that can't travel: " + describe(bytes.error()));
  }
  if (!transmit(std::move(item))) {
    Error why{ErrorCode::kExhausted, 0, "the peer leaves too many answers unread"};
    refuse(why);
    return std::unexpected(std::move(why));
  }
  if (!bytes) return std::unexpected(bytes.error());
  return {};
}

void FakePeerTransport::End::die() {
  const auto self = shared_from_this();
  if (closed_ || finished_) return;
  for (int left = kMessagesPerDeath; !inbox_.empty(); --left) {
    isDying_ = left == 0;
    if (isDying_) return;  // The posts of the other messages deliver them.
    deliverOne();
  }
  if (closed_ || finished_) return;
  finished_ = true;
  endHere();
  std::deque<Outstanding> failing;
  for (auto& [serial, entry] : outstanding_) {
    if (entry.completion) failing.push_back(std::move(entry));
  }
  std::erase_if(outstanding_, [](const auto& entry) { return !entry.second.completion; });
  for (Outstanding& entry : failing) {
    if (closed_) return;
    entry.completion(raisedGone());
  }
  if (!death_) death_ = Error{ErrorCode::kNotFound, 0, "the peer has ended"};
  reportDeath();
}

void FakePeerTransport::End::reportDeath() {
  const auto handlers = handlers_;
  if (closed_ || !death_ || !handlers->death) return;
  const Error why = *std::exchange(death_, std::nullopt);
  handlers->death(why);
}

// The owner's end of a connection.
class FakePeerTransport::Connection final : public PeerConnection {
 public:
  explicit Connection(std::shared_ptr<End> end) : end_(std::move(end)) {}
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() override { end_->close(); }

  PeerCredentials peer() const override { return end_->peer_; }
  PeerState peerState() const override {
    if (!end_->isConnected()) return PeerState::kEnded;
    const FakePeerTransport& other = end_->other_->process_;
    if (other.dead_ || other.leftToReader_) return PeerState::kEnded;
    if (end_->process_.hasShortage_) return PeerState::kUnknown;
    const bool isUnchanged = other.self_.user == end_->peer_.user;
    return isUnchanged ? PeerState::kUnchanged : PeerState::kOtherUser;
  }
  void admit() override {
    end_->admitted_ = true;
    end_->place_.reset();
    end_->admissionTimer_.reset();
    if (!end_->ended_ && !end_->account()) {
      end_->refuse({ErrorCode::kExhausted, 0, "its user takes too much of this process"});
    }
  }
  void setHandlers(PeerHandlers handlers) override {
    end_->handlers_ = std::make_shared<PeerHandlers>(std::move(handlers));
    if (!end_->finished_ || !end_->death_) return;
    end_->loop().post(
        [weak = std::weak_ptr(end_)] {
          if (const auto end = weak.lock()) end->reportDeath();
        },
        Urgency::kConnectionDeath);
  }
  MessageResult call(std::string_view selector, const Array& arguments, Duration timeout) override {
    const auto end = end_;  // A handler that is called meanwhile may destroy this.
    return end->call(selector, arguments, timeout);
  }
  void callAsync(std::string_view selector, const Array& arguments, Duration timeout,
                 Completion completion) override {
    end_->callAsync(selector, arguments, timeout, std::move(completion));
  }
  Result<void> send(std::string_view selector, const Array& arguments) override {
    return end_->send(selector, arguments);
  }
  void close() override { end_->close(); }

 private:
  std::shared_ptr<End> end_;
};

class FakePeerNetwork::Listener final : public PeerListener {
 public:
  Listener(FakePeerTransport& process, std::string path, PeerListenerOptions options,
           PeerTransport::NewConnection onConnection)
      : process_(&process),
        network_(process.network_),
        path_(std::move(path)),
        options_(options),
        onConnection_(std::make_shared<PeerTransport::NewConnection>(std::move(onConnection))),
        places_(std::make_shared<PeerPlaces>(process.self_.user)) {
    network_.listeners_[path_] = this;
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener() override {
    const auto found = network_.listeners_.find(path_);
    if (found != network_.listeners_.end() && found->second == this) {
      network_.listeners_.erase(found);
    }
  }

  std::uint32_t socketMode() const {
    return options_.socketMode.value_or(options_.audience.socketMode());
  }

  // Hands the new connection to the owner. False if it is rejected.
  bool handOn(const std::shared_ptr<FakePeerTransport::End>& end, const PeerCredentials& peer) {
    const std::uint32_t user = peer.user;
    const PeerAudience& audience = options_.audience;
    if (!audience.admitsUser(user, process_->self_.user) && audience.group != peer.group) {
      if (options_.excluded) options_.excluded(peer);
      return false;
    }
    end->account_ = process_->accounts_->take(user, {.connections = 1, .descriptors = 1});
    if (!end->account_) return false;
    const auto refuse = [weak = std::weak_ptr(end)](const char* why) {
      if (const auto held = weak.lock()) held->refuse({ErrorCode::kDenied, 0, why});
    };
    end->place_ = places_->take(user, [refuse] { refuse("pushed out by newer connections"); });
    if (!end->place_) return false;
    end->admitted_ = false;
    end->admissionTimer_ = network_.loop_.startTimer(
        options_.admissionTime, RunLoop::Repeat::kOnce,
        [refuse] { refuse("did not show in time that it belongs here"); });
    const auto onConnection = onConnection_;  // It may destroy this.
    (*onConnection)(std::make_unique<FakePeerTransport::Connection>(end));
    return !end->ended_;
  }

  FakePeerTransport* process_;
  FakePeerNetwork& network_;
  std::shared_ptr<const void> life_ = std::make_shared<int>();  // until this or its process ends
  const std::string path_;
  const PeerListenerOptions options_;
  std::shared_ptr<PeerTransport::NewConnection> onConnection_;  // with running calls
  std::shared_ptr<PeerPlaces> places_;                          // with connections that hold them
};

FakePeerTransport::FakePeerTransport(FakePeerNetwork& network, PeerCredentials self)
    : FakePeerTransport(
          network, self,
          std::make_shared<PeerAccounts>(self.user, PeerAccounts::limitsFor(kDescriptors))) {}

FakePeerTransport::FakePeerTransport(FakePeerNetwork& network, PeerCredentials self,
                                     std::shared_ptr<PeerAccounts> accounts)
    : network_(network),
      self_(self),
      accounts_(std::move(accounts)),
      turns_(std::make_shared<PeerTurns>(network.loop(), self.user)) {}

FakePeerTransport::~FakePeerTransport() {
  for (const auto& weak : ends_) {
    if (const auto end = weak.lock()) end->close();
  }
}

bool FakePeerTransport::mayServe(const End* end) const {
  if (hung_ || dead_) return false;
  if (waitingIn_.empty()) return true;
  return waitingIn_.back() == end && end->whileWaiting_ == WhileWaiting::kServe;
}

void FakePeerTransport::serveAll() {
  for (const auto& weak : ends_) {
    const auto end = weak.lock();
    if (!end) continue;
    for (std::size_t i = 0; i < end->inbox_.size(); ++i) end->post(Urgency::kOrdinary);
    if (!end->ended_ && !end->isConnected()) end->post(Urgency::kConnectionDeath);
  }
}

std::uint32_t FakePeerNetwork::socketMode(const std::string& path) const {
  return listeners_.at(path)->socketMode();
}

Result<std::unique_ptr<PeerListener>> FakePeerTransport::listen(const std::string& path,
                                                                const PeerListenerOptions& options,
                                                                NewConnection onConnection) {
  const auto found = network_.listeners_.find(path);
  if (found != network_.listeners_.end() && !found->second->process_->dead_) {
    return std::unexpected(Error{ErrorCode::kDenied, EADDRINUSE, "listening on " + path});
  }
  return std::make_unique<FakePeerNetwork::Listener>(*this, path, options, std::move(onConnection));
}

Result<std::unique_ptr<PeerListener>> FakePeerTransport::listenOn(
    Descriptor passed, const PeerListenerOptions& options, NewConnection onConnection) {
  return listen("passed/" + std::to_string(passed), options, std::move(onConnection));
}

std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> FakePeerTransport::connect(
    const std::string& path, const PeerConnectOptions& options) {
  using Kind = PeerConnectFailure::Kind;
  const auto failed = [&path](Kind kind, int number) {
    return std::unexpected(
        PeerConnectFailure{kind, Error{ErrorCode::kDenied, number, "connecting to " + path}});
  };
  std::erase_if(ends_, [](const auto& weak) { return weak.expired(); });
  const auto found = network_.listeners_.find(path);
  if (found == network_.listeners_.end()) return failed(Kind::kNobodyThere, ENOENT);
  FakePeerNetwork::Listener& listener = *found->second;
  FakePeerTransport& there = *listener.process_;
  if (there.dead_) return failed(Kind::kNobodyThere, ECONNREFUSED);
  if (!options.servers.admitsUser(there.self_.user, self_.user)) {
    return failed(Kind::kRefused, EPERM);
  }
  const auto answers = [&] { return there.mayServe(nullptr); };
  if (!network_.loop_.waitFor(options.timeout, answers)) return failed(Kind::kTimedOut, 0);

  const auto ours = std::make_shared<End>(*this, options.whileWaiting, options.contents);
  const auto theirs =
      std::make_shared<End>(there, listener.options_.whileWaiting, listener.options_.contents);
  ours->join(theirs);
  theirs->join(ours);
  ends_.push_back(ours);
  there.ends_.push_back(theirs);
  if (!listener.handOn(theirs, self_)) {
    theirs->close();
    ours->close();
    return failed(Kind::kRefused, 0);
  }
  return std::make_unique<Connection>(ours);
}

Result<PeerTransport::Anonymous> FakePeerTransport::listenAnonymously(
    const PeerListenerOptions& options, NewConnection onConnection) {
  const std::string path = "anonymous/" + std::to_string(++network_.anonymous_);
  auto listener = listen(path, options, std::move(onConnection));
  if (!listener) return std::unexpected(std::move(listener.error()));
  return Anonymous{std::move(*listener),
                   std::make_shared<FakeEndpoint>(path, network_.listeners_[path]->life_)};
}

std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure>
FakePeerTransport::connectToEndpoint(const NSXPCListenerEndpoint& endpoint,
                                     const PeerConnectOptions& options) {
  return connect(dynamic_cast<const FakeEndpoint&>(endpoint).path(), options);
}

void FakePeerTransport::hang() { hung_ = true; }

void FakePeerTransport::goOn() {
  hung_ = false;
  serveAll();
}

void FakePeerTransport::die() {
  dead_ = true;
  for (const auto& [path, listener] : network_.listeners_) {
    if (listener->process_ == this) listener->life_.reset();
  }
  for (const auto& weak : ends_) {
    if (const auto end = weak.lock()) end->close();
  }
}

}  // namespace platform
