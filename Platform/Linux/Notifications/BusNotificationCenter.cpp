#include "Platform/Linux/Notifications/BusNotificationCenter.h"

#include <utility>
#include <vector>

#include <poll.h>

#include "Platform/Linux/DBus/DBusConnecting.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/Notifications/NotificationMessages.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {
namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

constexpr std::chrono::milliseconds kRetryTime{500};

// The most that may be received but not yet dispatched. Beyond that we stop reading.
constexpr long kMaximumReceivedBytes = 1L << 20;

// The most posts of other threads that may wait for the loop.
constexpr std::size_t kMaximumForeignPosts = 1024;

// Empty if the address is not the path of a socket.
std::string socketPathOf(const std::string& address) {
  DBusErrorText error;
  DBusAddressEntry** entries = nullptr;
  int count = 0;
  if (!dbus_parse_address(address.c_str(), &entries, &count, error.get())) return {};
  const char* path = nullptr;
  if (count > 0 && std::string_view(dbus_address_entry_get_method(entries[0])) == "unix")
    path = dbus_address_entry_get_value(entries[0], "path");
  std::string result = path != nullptr ? path : "";
  dbus_address_entries_free(entries);
  return result;
}

std::unexpected<Error> failed(ErrorCode code, std::string what) {
  return std::unexpected(Error{code, 0, std::move(what)});
}

std::unexpected<Error> outOfMemory() { return failed(ErrorCode::kExhausted, "there is no memory"); }

UniqueDBusMessage busCall(const char* method) {
  return UniqueDBusMessage(dbus_message_new_method_call(kBus, kBusPath, kBus, method));
}

std::size_t sizeOf(DBusMessage* message) {
  char* bytes = nullptr;
  int size = 0;
  if (!dbus_message_marshal(message, &bytes, &size)) return SIZE_MAX;
  dbus_free(bytes);
  return static_cast<std::size_t>(size);
}

// The message that libdbus itself adds after all that the bus sent.
bool isEndOfConnection(const UniqueDBusMessage& message) {
  return dbus_message_is_signal(message.get(), DBUS_INTERFACE_LOCAL, "Disconnected");
}

// libdbus itself notices the peer's end only when it reads.
bool hasEnded(Descriptor descriptor) {
  pollfd entry{.fd = descriptor, .events = 0, .revents = 0};
  return descriptor < 0 || (::poll(&entry, 1, 0) == 1 && entry.revents != 0);
}

}  // namespace

class BusNotificationCenter::Observer final : public Observation {
 public:
  Observer(std::shared_ptr<DistributedObservers::Entry> entry, std::string rule,
           std::weak_ptr<BusNotificationCenter*> center)
      : entry_(std::move(entry)), rule_(std::move(rule)), center_(std::move(center)) {}
  ~Observer() override {
    entry_.reset();
    if (const auto center = center_.lock()) (*center)->forget(rule_);
  }

 private:
  std::shared_ptr<DistributedObservers::Entry> entry_;  // shared with a running delivery
  std::string rule_;
  std::weak_ptr<BusNotificationCenter*> center_;
};

BusNotificationCenter::BusNotificationCenter(AsioRunLoop& loop, std::string address, SystemLog& log,
                                             Duration confirmationTime)
    : loop_(loop),
      address_(std::move(address)),
      socketPath_(socketPathOf(address_)),
      log_(log),
      confirmationTime_(confirmationTime),
      lostPosts_(loop_, log_, "DistributedNotificationCenter"),
      alive_(std::make_shared<BusNotificationCenter*>(this)) {
  if (!socketPath_.empty()) {
    connect();
    return;
  }
  const AslClient client{"DistributedNotificationCenter", "com.vantor.platform"};
  log_.asl_log(&client, ASL_LEVEL_ERR,
               stringWithFormat("The address of the notification bus is \"%@\", expected "
                                "\"unix:path=\" and a path: there are no notifications",
                                address_));
}

BusNotificationCenter::~BusNotificationCenter() { logWaitingPosts(); }

void BusNotificationCenter::connect() {
  // Any program may fill the bus's backlog, so connecting must not wait for room in it.
  auto socket = connectToSocket(socketPath_, Duration::zero());
  if (!socket) return connectAfter(kRetryTime);
  auto connection = openOverSocket(*std::move(socket));
  if (!connection) return connectAfter(kRetryTime);
  connection_ = *std::move(connection);
  connectedAt_ = loop_.now();
  dbus_connection_set_exit_on_disconnect(connection_.get(), 0);
  dbus_connection_set_max_message_size(connection_.get(), 2 * kMaxNotificationBytes);
  dbus_connection_set_max_received_size(connection_.get(), kMaximumReceivedBytes);
  dbus_connection_set_max_message_unix_fds(connection_.get(), 0);
  auto sources = DBusSources::attach(
      loop_, connection_.get(),
      {.dispatch = [this] { dispatch(); }, .peerEnded = [this] { peerEnded(); }, .handled = {}});
  if (!sources) return lost();
  sources_ = std::move(*sources);
  if (!sayHello()) lost();
}

void BusNotificationCenter::connectAfter(Duration delay) {
  retry_ = loop_.startTimer(delay, RunLoop::Repeat::kOnce, [this] { connect(); });
}

void BusNotificationCenter::peerEnded() {
  // Signals that the bus sent before its end count. They are delivered in their turn.
  do {
    keepSignals();
  } while (sources_->handleWithin(Duration::zero()) == DBusSources::Handled::kSome);
  lost();
}

void BusNotificationCenter::keepSignals() {
  while (UniqueDBusMessage message{dbus_connection_pop_message(connection_.get())}) {
    if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_SIGNAL) {
      stash_.push_back(std::move(message));
    } else {
      handleReply(*message);
    }
  }
}

void BusNotificationCenter::lost() {
  if (connection_) keepSignals();
  // The end is handled here. If it stayed in the stash, it would later count as the end of the next
  // bus.
  std::erase_if(stash_, isEndOfConnection);
  sources_.reset();
  connection_.reset();
  // The next bus uses the same socket, which exists already. By connecting before the bus starts,
  // we also hear the first posts. If the bus closes as soon as we register, wait before the retry.
  const bool wasRegistered = std::exchange(registered_, false);
  const bool hasLasted = wasRegistered && loop_.now() - connectedAt_ >= kRetryTime;
  mayHaveMissed_ = true;
  awaited_.clear();
  if (!stash_.empty()) dispatchLater();
  connectAfter(hasLasted ? Duration::zero() : kRetryTime);
}

void BusNotificationCenter::logWaitingPosts() {
  for (const WaitingPost& post : waiting_) {
    const Error why{ErrorCode::kNotFound, 0,
                    "the notification bus at " + address_ + " has gone before it answered"};
    lostPosts_.write(lostPostText(post.name, why));
  }
}

void BusNotificationCenter::dispatchLater() {
  loop_.post([center = std::weak_ptr(alive_)] {
    if (const auto alive = center.lock()) (*alive)->dispatch();
  });
}

bool BusNotificationCenter::sayHello() {
  const UniqueDBusMessage hello = busCall("Hello");
  std::uint32_t serial = 0;
  if (!hello || !dbus_connection_send(connection_.get(), hello.get(), &serial)) return false;
  awaited_.emplace(serial, Awaited::kHello);
  // The requests follow the Hello in the bus's order, so posts after them are not missed.
  for (const auto& [rule, users] : rules_) requestMatch(rule);
  return true;
}

void BusNotificationCenter::registered() {
  registered_ = true;
  // Send nothing into a connection that has ended; lost() follows.
  if (!sources_ || hasEnded(sources_->descriptor())) return;
  for (const WaitingPost& post : waiting_)
    dbus_connection_send(connection_.get(), post.message.get(), nullptr);
  waiting_.clear();
  waitingBytes_ = 0;
}

std::unique_ptr<DistributedNotificationCenter::Observation> BusNotificationCenter::addObserver(
    std::optional<std::string> name, std::optional<std::string> object, Handler handler,
    NSNotificationSuspensionBehavior /*behavior*/) {
  std::string rule = matchRuleFor(name);
  auto entry = observers_.add(std::move(name), std::move(object), std::move(handler));
  observe(rule);
  return std::make_unique<Observer>(std::move(entry), std::move(rule), alive_);
}

void BusNotificationCenter::observe(const std::string& rule) {
  if (rules_[rule]++ > 0) return;
  // If the bus does not answer, one wait is enough.
  const bool isAnswering = connection_ && !mayHaveMissed_;
  if (connection_ && requestMatch(rule) && isAnswering) waitForConfirmation();
  if (!registered_ || !awaited_.empty()) mayHaveMissed_ = true;
}

void BusNotificationCenter::forget(const std::string& rule) {
  const auto found = rules_.find(rule);
  if (--found->second > 0) return;
  rules_.erase(found);
  if (!connection_) return;
  const UniqueDBusMessage message = busCall("RemoveMatch");
  const char* text = rule.c_str();
  if (!message ||
      !dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID))
    return;  // Signals without an observer are dropped.
  dbus_message_set_no_reply(message.get(), 1);
  dbus_connection_send(connection_.get(), message.get(), nullptr);
}

bool BusNotificationCenter::requestMatch(const std::string& rule) {
  const UniqueDBusMessage message = busCall("AddMatch");
  const char* text = rule.c_str();
  std::uint32_t serial = 0;
  if (!message ||
      !dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) ||
      !dbus_connection_send(connection_.get(), message.get(), &serial))
    return false;
  awaited_.emplace(serial, Awaited::kMatch);
  return true;
}

void BusNotificationCenter::waitForConfirmation() {
  const Instant deadline = loop_.now() + confirmationTime_;
  while (connection_ && !awaited_.empty()) {
    keepSignals();
    if (!stash_.empty()) sources_->scheduleDispatch();
    if (awaited_.empty() || loop_.now() >= deadline) return;
    if (sources_->handleWithin(deadline - loop_.now()) == DBusSources::Handled::kNothingToWaitFor)
      return;
    // The connection's death is about to be delivered.
    if (!dbus_connection_get_is_connected(connection_.get())) return;
  }
}

void BusNotificationCenter::postNotificationName(std::string_view name,
                                                 std::optional<std::string> object, Value userInfo,
                                                 NSNotificationPosting /*posting*/) {
  DistributedNotification notification{std::string(name), std::move(object), std::move(userInfo)};
  if (std::this_thread::get_id() == thread_) return send(notification);
  postFromOtherThread(std::move(notification));
}

void BusNotificationCenter::postFromOtherThread(DistributedNotification notification) {
  {
    const std::lock_guard lock(mutex_);
    if (foreignPosts_ == kMaximumForeignPosts) {
      if (lostForeign_++ == 0) firstLostForeign_ = std::move(notification.name);
      return;
    }
    ++foreignPosts_;
  }
  loop_.post([center = std::weak_ptr(alive_), notification = std::move(notification)] {
    if (const auto alive = center.lock()) (*alive)->sendFromOtherThread(notification);
  });
}

void BusNotificationCenter::sendFromOtherThread(const DistributedNotification& notification) {
  std::size_t lost = 0;
  std::string firstLost;
  {
    const std::lock_guard lock(mutex_);
    --foreignPosts_;
    std::swap(lost, lostForeign_);
    std::swap(firstLost, firstLostForeign_);
  }
  send(notification);
  if (lost == 0) return;
  // One line stands for all of them.
  const Error why{ErrorCode::kExhausted, 0, "too many posts of other threads wait"};
  lostPosts_.write(lostPostText(firstLost, why));
  lostPosts_.leaveOut(lost - 1);
}

void BusNotificationCenter::send(const DistributedNotification& notification) {
  if (const auto sent = trySend(notification); !sent) {
    lostPosts_.write(lostPostText(notification.name, sent.error()));
  }
}

Result<void> BusNotificationCenter::trySend(const DistributedNotification& notification) {
  auto message = encodeNotification(notification);
  if (!message) return std::unexpected(std::move(message.error()));
  if (socketPath_.empty())
    return failed(ErrorCode::kNotFound, "the notification bus at " + address_ + " is not there");
  // An end that lost() has not handled yet counts, too.
  if (!registered_ || hasEnded(sources_->descriptor())) {
    return queue({notification.name, *std::move(message)});
  }
  const auto unsent =
      static_cast<std::size_t>(dbus_connection_get_outgoing_size(connection_.get()));
  // The limit may already be exceeded, because requests for signals are not held back.
  if (unsent >= kMaxUnsentNotificationBytes ||
      (unsent > 0 && sizeOf(message->get()) > kMaxUnsentNotificationBytes - unsent))
    return failed(ErrorCode::kExhausted, "the notification bus does not read");
  if (!dbus_connection_send(connection_.get(), message->get(), nullptr)) return outOfMemory();
  return {};
}

Result<void> BusNotificationCenter::queue(WaitingPost post) {
  const std::size_t size = sizeOf(post.message.get());
  if (size > kMaxUnsentNotificationBytes - waitingBytes_)
    return failed(ErrorCode::kExhausted, "the notification bus does not answer");
  waitingBytes_ += size;
  waiting_.push_back(std::move(post));
  return {};
}

void BusNotificationCenter::dispatch() {
  UniqueDBusMessage message;
  if (!stash_.empty()) {
    message = std::move(stash_.front());
    stash_.pop_front();
  } else if (connection_) {
    message.reset(dbus_connection_pop_message(connection_.get()));
  }
  if (!message) return;
  if (isEndOfConnection(message)) return lost();
  // One message at a time, so that more urgent calls can run in between.
  if (sources_) {
    sources_->scheduleDispatch();
  } else if (!stash_.empty()) {
    dispatchLater();
  }
  if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_SIGNAL) {
    handleSignal(*message);
  } else {
    handleReply(*message);
  }
}

void BusNotificationCenter::handleReply(DBusMessage& reply) {
  const auto found = awaited_.find(dbus_message_get_reply_serial(&reply));
  if (found == awaited_.end()) return;
  const Awaited what = found->second;
  awaited_.erase(found);
  const bool refused = dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR;
  if (refused) {
    DBusErrorText error;
    dbus_set_error_from_message(error.get(), &reply);
    const AslClient client{"DistributedNotificationCenter", "com.vantor.platform"};
    log_.asl_log(&client, ASL_LEVEL_WARNING,
                 stringWithFormat("The notification bus at %@ refuses %s: %s", address_,
                                  what == Awaited::kHello ? "us" : "an observer", error.text()));
  } else if (what == Awaited::kHello) {
    registered();
  }
  if (mayHaveMissed_ && registered_ && awaited_.empty()) reportReturn();
}

// Posted, because a reply may be handled while an observer is being added, or after its bus has
// ended; in that case the return of the next bus is reported.
void BusNotificationCenter::reportReturn() {
  mayHaveMissed_ = false;
  loop_.post([center = std::weak_ptr(alive_)] {
    const auto alive = center.lock();
    if (alive && (*alive)->registered_) (*alive)->returnObservers_.notify();
  });
}

void BusNotificationCenter::handleSignal(DBusMessage& signal) {
  if (const auto notification = decodeNotification(signal)) observers_.deliver(*notification);
}

}  // namespace platform
