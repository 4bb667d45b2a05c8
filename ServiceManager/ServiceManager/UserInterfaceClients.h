#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/Messages/NSProxy.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"

// The user interface's clients, which are notified when a service's process starts or ends. Belongs
// to the main thread.
class UserInterfaceClients {
 public:
  static constexpr std::int64_t kJobRuns = 1;  // its process runs and is watched
  static constexpr std::int64_t kJobHasEnded = 0;

  // The client is notified from now on, until a notice can't be delivered to it. Refused, with a
  // log line, when there are as many clients as may be.
  void registerClient(std::shared_ptr<const platform::NSProxy> client);

  // Notifies one client after the other, each of which may block for its connection's time-out.
  // Only a process that runs is part of the notice.
  void notifyClientsOfService(Label label, std::int64_t withJobStatusChange, std::int64_t andPID);

  void removeAll() { userClients_.clear(); }

  // In the order of registration. Shared with all other users of the same object.
  const std::vector<std::shared_ptr<const platform::NSProxy>>& userClients() const {
    return userClients_;
  }

 private:
  std::vector<std::shared_ptr<const platform::NSProxy>> userClients_;
};
