#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Messages/NSProxy.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"

// The user interface's clients, which are notified when a service's process starts or ends. Nobody
// waits for them: a notice is sent to all clients at once, and each answer has its connection's
// reply time-out. Belongs to the main thread.
class UserInterfaceClients {
 public:
  static constexpr std::int64_t kJobRuns = 1;  // its process runs and is watched
  static constexpr std::int64_t kJobHasEnded = 0;

  // The notices that have been sent over one connection and not answered; others wait. So a client
  // that takes 100 ms for each is still in time for the last.
  static constexpr std::size_t kMaxNoticesUnderWay = 16;
  // The notices that may wait for a client: one for each job that the job host takes. They are kept
  // once for all clients.
  static constexpr std::size_t kMaxWaitingNotices = 16'384;

  // `mayLog` tells whether a request of the user may have another line.
  using MayLog = std::function<bool(std::uint32_t user)>;
  explicit UserInterfaceClients(
      std::uint32_t ownUser, MayLog mayLog = [](std::uint32_t) { return true; })
      : ownUser_(ownUser), mayLog_(std::move(mayLog)) {}
  UserInterfaceClients(const UserInterfaceClients&) = delete;
  UserInterfaceClients& operator=(const UserInterfaceClients&) = delete;

  // The client is notified from now on, until a notice can't be delivered to it. Refused, with a
  // log line, when there are as many clients as may be, also of its user.
  void registerClient(std::shared_ptr<const platform::NSProxy> client);

  // Returns at once. Only a process that runs is part of the notice. Each client gets its notices
  // in the order of these calls. A client that does not conform, raises, does not answer in time,
  // or has too many notices waiting, is removed with all its registrations.
  void notifyClientsOfService(Label label, std::int64_t withJobStatusChange, std::int64_t andPID);

  void removeAll();

  // In the order of registration. Shared with all other users of the same object.
  std::vector<std::shared_ptr<const platform::NSProxy>> userClients() const;

 private:
  struct Registration {
    std::shared_ptr<const platform::NSProxy> client;
    std::optional<std::uint32_t> user;  // nothing for a client of this program
    std::uint64_t next = 0;  // the number of the first notice that has not been sent to it
    bool isRemoved = false;
  };

  bool hasRoomFor(std::optional<std::uint32_t> user) const;
  bool isOrdinary(std::optional<std::uint32_t> user) const;
  void logOf(const std::shared_ptr<const platform::NSProxy>& client, std::string_view line) const;
  void sendNotices();
  bool isBehind(const Registration& registration) const;
  void sendNext(Registration& registration);
  void answered(const std::shared_ptr<const platform::NSProxy>& client, bool successfully);
  void abandon(const std::shared_ptr<const platform::NSProxy>& client);
  void abandonSlowest();
  void forgetSentNotices();
  std::uint64_t endOfNotices() const { return firstNotice_ + notices_.size(); }

  const std::uint32_t ownUser_;
  const MayLog mayLog_;
  // Shared with sendNotices(), during which others may be removed.
  std::vector<std::shared_ptr<Registration>> registrations_;
  // The notices that have not been sent to all, and the number of the first one.
  std::deque<platform::Value> notices_;
  std::uint64_t firstNotice_ = 0;
  bool isSending_ = false;
  // An answer that arrives after this object's end finds it expired. Destroyed first.
  const std::shared_ptr<UserInterfaceClients*> self_ =
      std::make_shared<UserInterfaceClients*>(this);
};
