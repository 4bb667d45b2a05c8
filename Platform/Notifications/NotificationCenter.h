#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"

namespace platform {

// An event inside this program.
struct Notification {
  std::string name;
  const void* object = nullptr;  // its subject; only its identity counts
  Value userInfo = {};           // a dictionary, or nil
};

// The program's own notification centre (connection deaths, file handles). A post returns after its
// delivery to each observer in the order of adding. Belongs to one thread.
class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // Ends with its owner: once it is destroyed, the handler does not run. The handler itself may
  // destroy it. May outlive the centre.
  class Observation {
   public:
    Observation() = default;

   private:
    friend class NotificationCenter;
    struct Entry;
    explicit Observation(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    // Shared only with a running post that is calling the handler.
    std::shared_ptr<Entry> entry_;
  };

  // Observes `name` about `object`, or about any object if it is null.
  [[nodiscard]] Observation addObserver(std::string_view name, const void* object, Handler handler);

  // An observer that is added during a delivery is not called, and neither is one that is removed
  // before its turn.
  void post(const Notification& notification);

 private:
  std::vector<std::weak_ptr<Observation::Entry>> entries_;
};

}  // namespace platform
