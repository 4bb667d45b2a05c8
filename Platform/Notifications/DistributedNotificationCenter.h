#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

namespace platform {

// An announcement of one program to all programs of this machine.
struct DistributedNotification {
  std::string name;
  std::optional<std::string> object;  // its subject, for instance the sender's name for itself
  Value userInfo = {};                // a dictionary, or nil

  bool operator==(const DistributedNotification&) const = default;
};

// The treatment of notifications while the observer's program is suspended. This run loop is never
// suspended, so all four deliver at once; the choice is a part of the call.
enum class NSNotificationSuspensionBehavior {
  kDrop = 1,
  kCoalesce = 2,
  kHold = 3,
  kDeliverImmediately = 4,
};

// The receivers of a post. All sessions share one bus, so both values reach everybody; the choice
// is a part of the call.
enum class NSNotificationPosting { kThisSession, kPostToAllSessions };

// Announcements between the programs of this machine: all observers of the name receive them, and
// nobody answers. The poster receives its own, too, if it observes the name.
//
// A post is not a delivery: it may end with its bus, and an observer does not receive earlier
// posts. Posts of a program that no bus has registered wait for that, within a limit. Observers
// survive a restart of the bus. They may miss posts in between, and observeReturn() reports that.
class DistributedNotificationCenter {
 public:
  using Handler = std::function<void(const DistributedNotification&)>;

  // Ends with its owner: once it is destroyed, the handler does not run. The handler itself may
  // destroy it. Belongs to the run loop's thread; may outlive the centre.
  class Observation {
   public:
    virtual ~Observation() = default;
  };

  virtual ~DistributedNotificationCenter() = default;

  // Calls `handler` on the run loop for each notification with this name and object; std::nullopt
  // means any. Matching observers are called in the order of adding. Returns when the bus has
  // confirmed the observer, so that it misses nothing posted from then on. That blocks for at most
  // two seconds. If the bus is gone, or did not answer in that time, the observer starts when it is
  // back. Call it on the run loop's thread.
  [[nodiscard]] virtual std::unique_ptr<Observation> addObserver(
      std::optional<std::string> name, std::optional<std::string> object, Handler handler,
      NSNotificationSuspensionBehavior behavior = NSNotificationSuspensionBehavior::kCoalesce) = 0;

  // Whether the bus is there, but has not confirmed all observers yet. When it has, observeReturn()
  // reports it.
  virtual bool isAwaitingConfirmation() const { return false; }

  // Calls `handler` on the run loop, and never from inside a call of this centre, each time the bus
  // has confirmed all observers after they may have missed posts, because the bus was gone or did
  // not answer. Call it on the run loop's thread.
  [[nodiscard]] virtual std::unique_ptr<Observation> observeReturn(
      std::function<void()> handler) = 0;

  // Posts without blocking. A notification that can't be sent is logged and dropped: beyond the
  // limit of those that wait, with a user info that is not a dictionary, contains a remote object
  // or is too large, or with an empty name. Posts of a flood that are dropped may share a line. Any
  // thread may call it.
  virtual void postNotificationName(std::string_view name, std::optional<std::string> object,
                                    Value userInfo, NSNotificationPosting posting) = 0;
};

}  // namespace platform
