#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/DBus/DBusSources.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/DistributedObservers.h"

namespace platform {

// Distributed notifications as signals on a D-Bus message bus, see the D-Bus specification's
// "Message Bus". Path, interface and member are always the same; the arguments are
//   STRING          the name, by which observers match
//   ARRAY of STRING the object, none or one
//   VARIANT         the user info; left out where there is none
//
// Whoever may send is the bus's policy; everybody may receive.
//
// Connects and connects again on the loop for as long as it lives. While it is being made to wait
// for the bus's answers posts are kept, up to a bound.
class BusNotificationCenter final : public DistributedNotificationCenter {
 public:
  // See makeBusNotificationCenter() in NotificationBus.h.
  BusNotificationCenter(AsioRunLoop& loop, std::string address, SystemLog& log,
                        Duration confirmationTime);
  BusNotificationCenter(const BusNotificationCenter&) = delete;
  BusNotificationCenter& operator=(const BusNotificationCenter&) = delete;
  ~BusNotificationCenter() override;

  std::unique_ptr<Observation> addObserver(std::optional<std::string> name,
                                           std::optional<std::string> object, Handler handler,
                                           NSNotificationSuspensionBehavior behavior) override;
  std::unique_ptr<Observation> observeReturn(std::function<void()> handler) override {
    return returnObservers_.add(std::move(handler));
  }
  void postNotificationName(std::string_view name, std::optional<std::string> object,
                            Value userInfo, NSNotificationPosting posting) override;

 private:
  class Observer;
  enum class Awaited { kHello, kMatch };
  struct EarlyPost {
    std::string name;
    UniqueDBusMessage message;
  };

  void connect();
  void connectAfter(Duration delay);
  void peerEnded();
  void keepSignals();
  void lost();
  void loseEarlyPosts();
  void dispatchLater();
  bool sayHello();
  void registered();
  void tellOfReturn();

  void observe(const std::string& rule);
  void forget(const std::string& rule);
  bool requestMatch(const std::string& rule);
  void waitForConfirmation();

  void send(const DistributedNotification& notification);
  Result<void> trySend(const DistributedNotification& notification);
  Result<void> queue(EarlyPost post);

  void dispatch();
  void handleReply(DBusMessage& reply);
  void handleSignal(DBusMessage& signal);

  AsioRunLoop& loop_;
  const std::string address_;
  const std::string socketPath_;  // empty where the address has none
  SystemLog& log_;
  const Duration confirmationTime_;
  const std::thread::id thread_ = std::this_thread::get_id();

  DistributedObservers observers_;
  ReturnObservers returnObservers_;
  std::map<std::string, int> rules_;  // match rules and how many observers need each

  // In the order in which they go: the sources before the connection that they drive.
  UniqueDBusConnection connection_;
  std::unique_ptr<DBusSources> sources_;
  Instant connectedAt_;  // of the connection, or of the last one
  bool registered_ = false;
  // What was posted since may have passed the observers by: until the bus has confirmed them all.
  bool mayHaveMissed_ = false;
  std::map<std::uint32_t, Awaited> awaited_;  // by the serial of the request
  std::deque<EarlyPost> early_;               // posts that wait for the registration
  std::size_t earlyBytes_ = 0;
  // Signals that came while a confirmation was waited for, or before the bus's end.
  std::deque<UniqueDBusMessage> stash_;
  std::unique_ptr<RunLoopHandle> retry_;

  // Looked at by observations and by posts of other threads, which may outlive this.
  std::shared_ptr<BusNotificationCenter*> alive_;
};

}  // namespace platform
