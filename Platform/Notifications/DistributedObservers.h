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

// The observers of a centre, in the order of adding. Belongs to one thread.
class DistributedObservers {
 public:
  struct Entry {
    std::optional<std::string> name;
    std::optional<std::string> object;
    DistributedNotificationCenter::Handler handler;
    std::uint64_t number = 0;  // grows with each entry
  };

  // Observes until the entry is dropped. It is shared only with a running delivery that calls it.
  [[nodiscard]] std::shared_ptr<Entry> add(std::optional<std::string> name,
                                           std::optional<std::string> object,
                                           DistributedNotificationCenter::Handler handler);

  // Calls the matching observers whose number is below `end`. An observer that is dropped before
  // its turn is not called.
  void deliver(const DistributedNotification& notification, std::uint64_t end = UINT64_MAX);

  // The number that the next entry gets.
  std::uint64_t nextNumber() const { return nextNumber_; }

  // The observed names, each once, in the order of adding; std::nullopt stands for any name.
  std::vector<std::optional<std::string>> names() const;

 private:
  std::vector<std::weak_ptr<Entry>> entries_;
  std::atomic<std::uint64_t> nextNumber_ = 0;  // Posts of other threads read it.
};

// Subscribers to the return of the bus's observers. Belongs to one thread.
class ReturnObservers {
 public:
  [[nodiscard]] std::unique_ptr<DistributedNotificationCenter::Observation> add(
      std::function<void()> handler);
  // Calls all, in the order of adding. A subscriber that is dropped before its turn is not called.
  void notify();

 private:
  using Entry = std::function<void()>;
  class Observer;
  // Shared with their observations, and with a running call.
  std::vector<std::weak_ptr<Entry>> entries_;
};

// Whether a notification can be posted: it needs a name, and a user info that is nil or a
// dictionary without remote objects. Fails with kInvalid and the reason.
Result<void> checkDistributedNotification(const DistributedNotification& notification);

// The line about a notification that could not be posted.
std::string lostPostText(std::string_view name, const Error& why);

// Logs it for a centre.
void logLostPost(SystemLog& log, std::string_view name, const Error& why);

}  // namespace platform
