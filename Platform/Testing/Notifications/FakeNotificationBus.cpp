#include "Platform/Testing/Notifications/FakeNotificationBus.h"

#include <utility>

namespace platform {

class FakeNotificationBus::Center final : public DistributedNotificationCenter {
 public:
  Center(FakeNotificationBus& bus, SystemLog& log)
      : bus_(bus), log_(log), connectedAt_(bus.loop_.now()) {
    bus_.loop_.post([center = std::weak_ptr(alive_)] {
      if (const auto alive = center.lock()) (*alive)->logIn();
    });
  }

  std::unique_ptr<Observation> addObserver(std::optional<std::string> name,
                                           std::optional<std::string> object, Handler handler,
                                           NSNotificationSuspensionBehavior /*behavior*/) override {
    logIn();
    return std::make_unique<Observer>(
        bus_.observers_.add(std::move(name), std::move(object), std::move(handler)));
  }

  std::unique_ptr<Observation> observeReturn(std::function<void()> handler) override {
    return bus_.returnObservers_.add(std::move(handler));
  }

  void postNotificationName(std::string_view name, std::optional<std::string> object,
                            Value userInfo, NSNotificationPosting /*posting*/) override {
    DistributedNotification notification{std::string(name), std::move(object), std::move(userInfo)};
    if (const auto possible = checkDistributedNotification(notification); !possible) {
      logLostPost(log_, notification.name, possible.error());
    } else if (!bus_.running_) {
      bus_.waiting_.push_back(std::move(notification));
    } else if (!isLoggedIn_ && isLate()) {
      logIn();
      early_.push_back(std::move(notification));
    } else {
      bus_.deliver(std::move(notification));
    }
  }

 private:
  bool isLate() const { return bus_.loop_.now() - connectedAt_ > kLogInTime; }

  void logIn() {
    if (isLoggedIn_ || retry_) return;
    if (!isLate()) {
      isLoggedIn_ = true;
      return;
    }
    retry_ = bus_.loop_.startTimer(kRetryTime, RunLoop::Repeat::kOnce, [this] {
      isLoggedIn_ = true;
      for (DistributedNotification& post : std::exchange(early_, {})) {
        bus_.deliver(std::move(post));
      }
    });
  }

  class Observer final : public Observation {
   public:
    explicit Observer(std::shared_ptr<DistributedObservers::Entry> entry)
        : entry_(std::move(entry)) {}

   private:
    std::shared_ptr<DistributedObservers::Entry> entry_;
  };

  FakeNotificationBus& bus_;
  SystemLog& log_;
  const Instant connectedAt_;
  std::atomic<bool> isLoggedIn_ = false;        // Other threads post only later.
  std::vector<DistributedNotification> early_;  // posts that wait for the log-in
  std::unique_ptr<RunLoopHandle> retry_;
  std::shared_ptr<Center*> alive_ = std::make_shared<Center*>(this);  // The first turn checks it.
};

FakeNotificationBus::~FakeNotificationBus() = default;

void FakeNotificationBus::deliver(DistributedNotification notification) {
  loop_.post([this, notification = std::move(notification), end = observers_.nextNumber()] {
    observers_.deliver(notification, end);
  });
}

void FakeNotificationBus::start() {
  if (running_.exchange(true)) return;
  loop_.post([this] { returnObservers_.notify(); });
  for (DistributedNotification& post : std::exchange(waiting_, {})) deliver(std::move(post));
}

std::unique_ptr<DistributedNotificationCenter> FakeNotificationBus::makeCenter(SystemLog& log) {
  return std::make_unique<Center>(*this, log);
}

}  // namespace platform
