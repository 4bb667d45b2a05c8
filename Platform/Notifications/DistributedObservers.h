#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Values/Error.h"

namespace platform {

// Whom a centre calls, in the order of adding. Belongs to one thread.
class DistributedObservers {
 public:
  struct Entry {
    std::optional<std::string> name;
    std::optional<std::string> object;
    DistributedNotificationCenter::Handler handler;
    std::uint64_t number = 0;  // grows with each entry
  };

  // Observes until the entry is let go of. Shared with a delivery that calls it at this moment, and
  // with nobody else.
  [[nodiscard]] std::shared_ptr<Entry> add(std::optional<std::string> name,
                                           std::optional<std::string> object,
                                           DistributedNotificationCenter::Handler handler);

  // Calls those that the notification suits and whose number is below `end`. Whoever is let go of
  // before his turn is not called.
  void deliver(const DistributedNotification& notification, std::uint64_t end = UINT64_MAX);

  // The number that the next entry gets.
  std::uint64_t nextNumber() const { return nextNumber_; }

  // The names that are observed, each once, in the order of adding; nothing stands for any name.
  std::vector<std::optional<std::string>> names() const;

 private:
  std::vector<std::weak_ptr<Entry>> entries_;
  std::atomic<std::uint64_t> nextNumber_ = 0;  // Posts of other threads ask for it.
};

// Who wants to know that the observers are with the bus again. Belongs to one thread.
class ReturnObservers {
 public:
  [[nodiscard]] std::unique_ptr<DistributedNotificationCenter::Observation> add(
      std::function<void()> handler);
  // Calls all, in the order of adding. Whoever is let go of before his turn is not called.
  void tell();

 private:
  using Entry = std::function<void()>;
  class Observer;
  // Shared with their observations, and with a call that runs at this moment.
  std::vector<std::weak_ptr<Entry>> entries_;
};

// Whether it can be posted: a name, and a user info that is a dictionary or nil and holds no remote
// object. kInvalid, with what is wrong.
Result<void> checkDistributedNotification(const DistributedNotification& notification);

// Logs that a notification could not be posted, for a centre.
void logLostPost(SystemLog& log, std::string_view name, const Error& why);

}  // namespace platform
