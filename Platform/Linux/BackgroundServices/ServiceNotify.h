#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/BackgroundServices/ServiceReadiness.h"

namespace platform {

// Announces to the service manager whose datagram socket NOTIFY_SOCKET names (see sd_notify(3)).
class ServiceNotify final : public ServiceReadiness {
 public:
  // Removes the variable from the environment, so that programs started from here can't announce
  // for this one. Call it before other threads exist, because they may read the environment.
  static ServiceNotify takeFromEnvironment();

  // `address` is an absolute path of at most 107 bytes, or "@" and an abstract name of at most 107
  // bytes. With an empty address announcements do nothing; with an ill-formed one they fail. If the
  // listener's queue is full, an announcement blocks for at most `timeout`.
  ServiceNotify(std::string address, std::chrono::milliseconds timeout)
      : address_(std::move(address)), timeout_(timeout) {}

  Result<void> announceReady() override { return send("READY=1"); }
  Result<void> announceStopping() override { return send("STOPPING=1"); }

 private:
  Result<void> send(std::string_view message) const;

  std::string address_;
  std::chrono::milliseconds timeout_;
};

}  // namespace platform
