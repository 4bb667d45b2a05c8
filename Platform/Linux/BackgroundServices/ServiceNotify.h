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
  // Removes the variables from the environment, so that programs started from here can't announce
  // for this one. Call it before other threads exist, because they may read the environment.
  static ServiceNotify takeFromEnvironment();

  // `address` is an absolute path of at most 107 bytes, or "@" and an abstract name of at most 107
  // bytes. With an empty address announcements do nothing; with an ill-formed one they fail. If the
  // listener's queue is full, an announcement blocks for at most `timeout`.
  ServiceNotify(std::string address, std::chrono::milliseconds timeout,
                std::chrono::microseconds watchdogTime = {})
      : address_(std::move(address)), timeout_(timeout), watchdogTime_(watchdogTime) {}

  Result<void> announceReady() override { return send("READY=1"); }
  // Text with a line end is cut there.
  Result<void> announceStatus(std::string_view status) override;
  Result<void> announceStopping() override { return send("STOPPING=1"); }

  // The program replaces itself, and announces again when it is ready.
  Result<void> announceReloading();

  // The program is alive, and its state in a few words for people. Never blocks: if there is no
  // room, the next announcement tells the same.
  Result<void> announceAlive(std::string_view state);

  // The service manager kills the program if it does not announce within this time that it is
  // alive (WATCHDOG_USEC). Zero if there is no such limit.
  std::chrono::microseconds watchdogTime() const { return watchdogTime_; }

  // Gives the program that replaces this one in its process the variables back.
  void returnToEnvironment() const;

 private:
  enum class Wait { kUpToTimeout, kNever };
  Result<void> send(std::string_view message, Wait wait = Wait::kUpToTimeout) const;

  std::string address_;
  std::chrono::milliseconds timeout_;
  std::chrono::microseconds watchdogTime_;
};

}  // namespace platform
