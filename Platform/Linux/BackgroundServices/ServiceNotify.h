#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/BackgroundServices/ServiceReadiness.h"

namespace platform {

// Announces through the datagram socket that a service manager names in NOTIFY_SOCKET.
class ServiceNotify final : public ServiceReadiness {
 public:
  // Takes the variable out of the environment, so that no program started from here speaks for this
  // one. To be called before there are other threads, which may read the environment.
  static ServiceNotify takeFromEnvironment();

  // `address` is an absolute path of at most 107 bytes, or "@" and a name of at most 107 bytes in
  // the abstract namespace; empty when there is nobody to tell. Any other fails at every
  // announcement. A listener that is busy is waited for, for `patience` at most.
  ServiceNotify(std::string address, std::chrono::milliseconds patience)
      : address_(std::move(address)), patience_(patience) {}

  Result<void> announceReady() override { return send("READY=1"); }
  Result<void> announceStopping() override { return send("STOPPING=1"); }

 private:
  Result<void> send(std::string_view message) const;

  std::string address_;
  std::chrono::milliseconds patience_;
};

}  // namespace platform
