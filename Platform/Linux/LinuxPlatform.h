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
#include "Platform/Linux/Logging/StandardErrorLogSink.h"
#include "Platform/Linux/Peers/DBusPeerTransport.h"
#include "Platform/Linux/Peers/PassedSocket.h"
#include "Platform/Linux/Processes/LinuxTasks.h"
#include "Platform/Linux/Processes/PidfdExitWatcher.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/Logging/NSLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// What a program gets from Linux: everything made in one order, ended in the other. For `main`,
// which hands it on by the interfaces.
struct LinuxPlatform {
  // Finds the platform root of the running program, reads its configuration and makes the rest. To
  // be called first thing in `main`, before there are other threads. Every error says what to do.
  static Result<std::unique_ptr<LinuxPlatform>> make();

  // The same for the platform whose root is the folder `root`, wherever this program lies. Fails
  // with kInvalid where that is no platform root, with kNotFound where there is no such folder.
  static Result<std::unique_ptr<LinuxPlatform>> makeAt(const std::string& root);

  LinuxPlatform(const LinuxPlatform&) = delete;
  LinuxPlatform& operator=(const LinuxPlatform&) = delete;

  ServiceNotify readiness;
  std::optional<PassedSocket> passedSocket;  // of the Mach service that this program serves
  std::uint64_t originalDescriptorLimit;     // what programs that are started from here get back
  PlatformConfiguration configuration;       // with the log sink that was chosen
  Bundle mainBundle;
  LinuxSystemInformation systemInformation;
  std::vector<std::string> preferredLanguages;
  LinuxFileManager fileManager;
  std::unique_ptr<LogSink> logSink;
  SystemLog systemLog;
  StandardErrorLogSink standardError;
  NSLogOutput nsLog{systemLog, standardError};
  std::unique_ptr<AsioRunLoop> runLoop;
  NotificationCenter notificationCenter;
  LinuxTasks tasks;
  PidfdExitWatcher exitWatcher{*runLoop};
  AsioTerminationSignals terminationSignals{*runLoop};
  DBusPeerTransport peerTransport{*runLoop};
  // Its destruction waits for what is still to be written, so it ends first.
  AsioSerialQueues utilityQueues{kUtilityThreads, AsioSerialQueues::Work::kBehindOthers};

 private:
  static constexpr std::size_t kUtilityThreads = 2;

  static Result<std::unique_ptr<LinuxPlatform>> makeWith(
      const std::function<Result<std::string>(const std::string& executable)>& findRoot);

  LinuxPlatform(ServiceNotify readiness, std::optional<PassedSocket> passedSocket,
                std::uint64_t originalDescriptorLimit, PlatformConfiguration configuration,
                Bundle mainBundle, std::unique_ptr<LogSink> logSink,
                std::unique_ptr<AsioRunLoop> runLoop);
};

}  // namespace platform
