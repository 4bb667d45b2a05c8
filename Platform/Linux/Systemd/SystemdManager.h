#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/Systemd/UnitProperty.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

class SystemdBus;

// systemd's manager of units, over the message bus of the system. It connects when it is first
// used, and again after the bus or systemd was restarted.
//
// Calls block this thread until systemd has answered, at most for the time-out. After a call
// without an answer, systemd counts as silent: each further call then waits for kSilentTimeOut
// only, until one is answered. Nothing is received between calls, so signals of the many units of a
// machine cost nothing.
class SystemdManager {
 public:
  static constexpr Duration kTimeOut = std::chrono::seconds(5);
  static constexpr Duration kSilentTimeOut = std::chrono::milliseconds(100);
  // The most that a call waits while systemd executes itself again and has no name on the bus.
  static constexpr Duration kReturnInterval = std::chrono::milliseconds(20);

  explicit SystemdManager(std::string busSocket = "/run/dbus/system_bus_socket");
  ~SystemdManager();

  // Starts a transient unit; returns when systemd has queued its job. kExhausted if a unit of that
  // name exists.
  Result<void> startTransientUnit(const std::string& unit,
                                  const std::vector<UnitProperty>& properties);

  // How long a wait goes on.
  enum class Awaited { kReadable, kFailed, kTimedOut };
  // Waits until the descriptor is readable, or the job of the unit has failed, for which
  // expectJob() was called before the start.
  void expectJob(const std::string& unit);
  Awaited awaitStart(const std::string& unit, int descriptor, Duration limit);
  void forgetJob(const std::string& unit);

  struct Status {
    bool isLoaded = false;
    bool isTransient = false;
    std::string slice;
    std::uint32_t mainProcess = 0;
  };
  // systemd loads a unit that it does not know, and says that it is not loaded.
  Result<Status> statusOf(const std::string& unit);

  // The exit status of the unit's last main process. Empty if systemd does not say.
  std::optional<std::int32_t> exitStatusOf(const std::string& unit);

  // How a process of the unit ended, as the siginfo of its end says it. Waits for systemd's report
  // for at most `limit`. Empty if another process was the unit's last one, or systemd does not say.
  struct MainEnd {
    std::int32_t code = 0;  // CLD_EXITED, CLD_KILLED or CLD_DUMPED
    std::int32_t status = 0;
  };
  std::optional<MainEnd> awaitEndOf(const std::string& unit, std::uint32_t process, Duration limit);

  // Stops the unit and forgets that it failed, so that systemd unloads it. Does not wait.
  void release(const std::string& unit);
  // The same, and returns when systemd has read the requests, which it handles in their order.
  void releaseAndConfirm(const std::string& unit);
  // The same, and returns whether systemd has unloaded it within `limit`.
  bool releaseAndAwait(const std::string& unit, Duration limit);
  // Signals all processes of the unit. Does not wait.
  void signalAll(const std::string& unit, int signal);

 private:
  std::optional<std::uint64_t> number(const std::string& unit, const char* interface,
                                      const char* name);
  std::string text(const std::string& unit, const char* interface, const char* name);
  std::optional<MainEnd> endOf(const std::string& unit, std::uint32_t process);

  std::unique_ptr<SystemdBus> bus_;
};

}  // namespace platform
