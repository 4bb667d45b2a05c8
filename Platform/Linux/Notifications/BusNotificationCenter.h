#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/DBus/DBusSources.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/DistributedObservers.h"

namespace platform {

// Distributed notifications as signals on a D-Bus message bus (see "Message Bus" in the D-Bus
// specification). Path, interface and member are always the same. The arguments are
//   STRING          the name, by which observers match
//   ARRAY of STRING the object: no element or one
//   VARIANT         the user info; left out if there is none
//
// The policy of the bus decides who may send; everybody may receive.
//
// It connects and reconnects on the loop for as long as it lives. While no bus has registered it,
// posts are queued, up to a limit, and survive the end of a connection: a program announces its
// start once, and the bus closes the connection of a program that was busy for longer than the bus
// waits for a log-in. Posts that libdbus has taken are lost with their bus.
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
  bool isAwaitingConfirmation() const override { return connection_ && !awaited_.empty(); }
  std::unique_ptr<Observation> observeReturn(std::function<void()> handler) override {
    return returnObservers_.add(std::move(handler));
  }
  void postNotificationName(std::string_view name, std::optional<std::string> object,
                            Value userInfo, NSNotificationPosting posting) override;

 private:
  class Observer;
  enum class Awaited { kHello, kMatch };
  struct WaitingPost {
    std::string name;
    UniqueDBusMessage message;
  };

  void connect();
  void connectAfter(Duration delay);
  void peerEnded();
  void keepSignals();
  void lost();
  void logWaitingPosts();
  void dispatchLater();
  bool sayHello();
  void registered();
  void reportReturn();

  void observe(const std::string& rule);
  void forget(const std::string& rule);
  bool requestMatch(const std::string& rule);
  void waitForConfirmation();

  void postFromOtherThread(DistributedNotification notification);
  void sendFromOtherThread(const DistributedNotification& notification);
  void send(const DistributedNotification& notification);
  Result<void> trySend(const DistributedNotification& notification);
  Result<void> queue(WaitingPost post);

  void dispatch();
  void handleReply(DBusMessage& reply);
  void handleSignal(DBusMessage& signal);

  AsioRunLoop& loop_;
  const std::string address_;
  const std::string socketPath_;  // empty if the address has none
  SystemLog& log_;
  const Duration confirmationTime_;
  const std::thread::id thread_ = std::this_thread::get_id();

  DistributedObservers observers_;
  ReturnObservers returnObservers_;
  std::map<std::string, int> rules_;  // match rules and how many observers need each

  // The order matters: the sources are destroyed before the connection that they drive.
  UniqueDBusConnection connection_;
  std::unique_ptr<DBusSources> sources_;
  Instant connectedAt_;  // of the connection, or of the last one
  bool registered_ = false;
  // Observers may have missed posts, until the bus has confirmed the rules of all of them.
  bool mayHaveMissed_ = false;
  std::map<std::uint32_t, Awaited> awaited_;  // by the serial of the request
  std::deque<WaitingPost> waiting_;           // posts that wait for the registration
  std::size_t waitingBytes_ = 0;
  // Signals that arrived while we waited for a confirmation, or before the bus ended.
  std::deque<UniqueDBusMessage> stash_;
  std::unique_ptr<RunLoopHandle> retry_;

  RefusalLog lostPosts_;
  std::mutex mutex_;              // for the next three
  std::size_t foreignPosts_ = 0;  // posts of other threads that wait for the loop
  std::size_t lostForeign_ = 0;   // further ones that had no room
  std::string firstLostForeign_;  // the name of the first of them

  // Checked by observations and by posts of other threads, which may outlive this.
  std::shared_ptr<BusNotificationCenter*> alive_;
};

}  // namespace platform
