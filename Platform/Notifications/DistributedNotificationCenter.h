#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

namespace platform {

// Something that a program of this machine announced to all others.
struct DistributedNotification {
  std::string name;
  std::optional<std::string> object;  // whom it is about, e.g. the sender's name for itself
  Value userInfo = {};                // a dictionary, or nil

  bool operator==(const DistributedNotification&) const = default;
};

// What is to happen to notifications that come while an observer's program is suspended. The run
// loop here never is, so all four deliver at once; the choice belongs to the call.
enum class NSNotificationSuspensionBehavior {
  kDrop = 1,
  kCoalesce = 2,
  kHold = 3,
  kDeliverImmediately = 4,
};

// Whom a post is for. There is one bus, which all sessions share, so both reach everybody; the
// choice belongs to the call.
enum class NSNotificationPosting { kThisSession, kPostToAllSessions };

// Announcements between the programs of this machine, by name: whoever observes the name gets them,
// and nobody answers. The poster gets its own, too, if it observes the name.
//
// Announcing is not delivering: where the bus is gone a post is lost, which is logged, and nobody
// is told what was posted before he observed. Observers stay through a restart of the bus; what was
// posted meanwhile passes them by, and observeReturn() tells of that.
class DistributedNotificationCenter {
 public:
  using Handler = std::function<void(const DistributedNotification&)>;

  // Ends with its owner: once it is destroyed the handler does not run. The handler itself may
  // destroy it. Belongs to the run loop's thread; may outlive the centre.
  class Observation {
   public:
    virtual ~Observation() = default;
  };

  virtual ~DistributedNotificationCenter() = default;

  // Calls `handler` on the run loop for each notification of that name about that object; nothing
  // stands for any. Observers that a notification suits are called in the order of adding. Returns
  // when the bus has confirmed it, so that nothing posted from then on is missed: blocks for two
  // seconds at most, and where the bus is gone, or has let such a wait pass, it observes from when
  // that is back. On the run loop's thread.
  [[nodiscard]] virtual std::unique_ptr<Observation> addObserver(
      std::optional<std::string> name, std::optional<std::string> object, Handler handler,
      NSNotificationSuspensionBehavior behavior = NSNotificationSuspensionBehavior::kCoalesce) = 0;

  // Calls `handler` on the run loop, and never from inside a call of this centre, each time that
  // the bus has confirmed all observers after a time in which they may have missed something: it
  // was gone, or did not answer. On the run loop's thread.
  [[nodiscard]] virtual std::unique_ptr<Observation> observeReturn(
      std::function<void()> handler) = 0;

  // Posts, and returns without waiting for anybody. What can't be sent (no bus; a user info that is
  // no dictionary, has a remote object in it or is too large; an empty name) is logged and dropped.
  // Any thread may call it.
  virtual void postNotificationName(std::string_view name, std::optional<std::string> object,
                                    Value userInfo, NSNotificationPosting posting) = 0;
};

}  // namespace platform
