#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"

namespace platform {

// Something that happened inside this program.
struct Notification {
  std::string name;
  const void* object = nullptr;  // whom it is about; only its identity counts
  Value userInfo = {};           // a dictionary, or nil
};

// The program's own notification centre (connection deaths, file handles). A post is delivered
// before it returns, to each observer in the order of adding. Belongs to one thread.
class NotificationCenter {
 public:
  using Handler = std::function<void(const Notification&)>;

  // Ends with its owner: once it is destroyed the handler does not run. The handler itself may
  // destroy it. May outlive the centre.
  class Observation {
   public:
    Observation() = default;

   private:
    friend class NotificationCenter;
    struct Entry;
    explicit Observation(std::shared_ptr<Entry> entry) : entry_(std::move(entry)) {}
    // Shared with a post that is calling the handler at this moment, and with nobody else.
    std::shared_ptr<Entry> entry_;
  };

  // Observes `name` about `object`, or about anything where it is null.
  [[nodiscard]] Observation addObserver(std::string_view name, const void* object, Handler handler);

  // Whoever is added while a post is being delivered does not get it; whoever is removed before his
  // turn does not either.
  void post(const Notification& notification);

 private:
  std::vector<std::weak_ptr<Observation::Entry>> entries_;
};

}  // namespace platform
