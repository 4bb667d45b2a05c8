#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Files/Bundle.h"
#include "Platform/Linux/BackgroundServices/AsioTerminationSignals.h"
#include "Platform/Linux/BackgroundServices/ServiceNotify.h"
#include "Platform/Linux/Files/LinuxFileManager.h"
#include "Platform/Linux/Logging/BufferedLogSink.h"
#include "Platform/Linux/Logging/LogAtEnd.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/Peers/MemoryRelief.h"
#include "Platform/Linux/Peers/PassedSocket.h"
#include "Platform/Linux/Processes/LinuxTasks.h"
#include "Platform/Linux/Processes/PidfdExitWatcher.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Logging/NSLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Logging/UserLines.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/SystemFacts/CurrentUser.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The platform layer on Linux for one program. `main` makes it and hands it on as interfaces. The
// members are destroyed in the reverse of the order in which they are made.
struct LinuxPlatform {
  // Finds the platform root of the running program, reads its configuration and makes the rest.
  // Call it first in `main`, before other threads exist. Every error says what to do.
  static Result<std::unique_ptr<LinuxPlatform>> make();

  // The same for the platform root `root`, wherever this program lies. Fails with kInvalid if the
  // folder is not a platform root, and with kNotFound if there is no such folder.
  static Result<std::unique_ptr<LinuxPlatform>> makeAt(const std::string& root);

  LinuxPlatform(const LinuxPlatform&) = delete;
  LinuxPlatform& operator=(const LinuxPlatform&) = delete;

  ServiceNotify readiness;
  // The socket of the Mach service that this program serves.
  std::optional<PassedSocket> passedSocket;
  std::uint64_t originalDescriptorLimit;  // the limit that started programs get back
  PlatformConfiguration configuration;    // with the log sink that was chosen
  Bundle mainBundle;
  LinuxSystemInformation systemInformation;
  // For the locale extensions (Shared/Categories); no program asks for them yet.
  std::vector<std::string> preferredLanguages;
  LinuxFileManager fileManager;
  // The only way to the log's disk or socket, and to standard error: no thread of the program but
  // the two of these sinks ever waits for them.
  BufferedLogSink logSink;
  BufferedLogSink standardError;
  SystemLog systemLog;
  LogAtEnd logAtEnd{logSink.progress(), systemLog.announced()};
  NSLogOutput nsLog{systemLog, standardError};
  std::unique_ptr<AsioRunLoop> runLoop;
  NotificationCenter notificationCenter;
  LinuxTasks tasks;
  PidfdExitWatcher exitWatcher{*runLoop};
  AsioTerminationSignals terminationSignals{*runLoop};
  // All transports of the program share these accounts.
  const std::shared_ptr<PeerAccounts> peerAccounts = DBusPeerTransport::makeAccounts();
  MemoryRelief memoryRelief{*runLoop, *peerAccounts};
  DBusPeerTransport peerTransport{*runLoop, peerAccounts};
  // All servers of the program share these limits.
  const std::shared_ptr<UserLines> userLines =
      std::make_shared<UserLines>(currentEffectiveUserId(), *runLoop, systemLog, "NSConnection");
  // Its destructor waits for lines on their way to the log, so it is destroyed first.
  AsioSerialQueues utilityQueues{kUtilityThreads, AsioSerialQueues::Work::kBackground};

 private:
  static constexpr std::size_t kUtilityThreads = 2;

  static Result<std::unique_ptr<LinuxPlatform>> makeWith(
      const std::function<Result<std::string>(const std::string& executable)>& findRoot);

  LinuxPlatform(ServiceNotify readiness, std::optional<PassedSocket> passedSocket,
                std::uint64_t originalDescriptorLimit, PlatformConfiguration configuration,
                Bundle mainBundle, std::unique_ptr<LogSink> logSink,
                std::unique_ptr<AsioRunLoop> runLoop);
};

// Writes an error of LinuxPlatform::make() to the log that the running program's root has without
// its configuration, if the root can be found. For programs whose standard error nobody reads.
void logFailedStart(const Error& error);

}  // namespace platform
