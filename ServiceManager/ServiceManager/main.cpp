// The service manager daemon. It has no options: Service.plist in its bundle lists the services,
// and etc/vantor/platform.plist of the platform root describes the system.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <unistd.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Logger/Logger.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Files/LinuxExtendedAttributes.h"
#include "Platform/Linux/Files/LinuxFileReader.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Logging/LogAtEnd.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/RunLoops/LoopThread.h"
#include "Platform/Linux/SystemCalls/CoreDumps.h"
#include "Platform/Linux/SystemFacts/DevRandom.h"
#include "Platform/Linux/SystemFacts/ProgramArguments.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Workers/EndOfWorkers.h"
#include "ServiceManager/Workers/ExtensionWorker.h"
#include "ServiceManager/Workers/OperatorClients.h"
#include "ServiceManager/Workers/SettingsClientsWorker.h"

namespace {

constexpr std::string_view kHelp =
    R"(Usage: servicemanagerd [--help | --version]

Decides which services of the product run, by the catalogue in its bundle and the product's
settings. The job host starts it; servicemanagerctl talks to it. See servicemanagerd(8).
)";

int fail(const platform::Error& error) {
  std::fputs(("servicemanagerd: " + platform::describe(error) + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  if (const auto status = platform::answerArguments(argc, argv, kHelp)) return *status;
  auto made = platform::LinuxPlatform::make();
  if (!made) {
    platform::logFailedStart(made.error());
    return fail(made.error());
  }
  platform::LinuxPlatform& linux = **made;
  // Nobody reads the standard error of a service.
  const auto report = [&linux](const std::string& text) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR, text);
  };
  const auto fail = [&report](const platform::Error& error) {
    report("the service manager does not start: " + platform::describe(error));
    return ::fail(error);
  };
  // The process holds the secret of this run.
  if (auto forbidden = platform::forbidCoreDumps(); !forbidden) return fail(forbidden.error());
  platform::RunLoop& loop = *linux.runLoop;
  // The last descriptors are for the operator, for watching and for the job host.
  linux.peerTransport.leaveDescriptorReserve();
  const std::string& root = linux.configuration.root;
  const platform::ListenerPlaces places(linux.configuration);
  const auto signatures =
      platform::LinuxCodeSignatures::create(root, [&] { return loop.wallTime(); });
  if (!signatures) return fail(signatures.error());

  const LoggerBinding logger(linux.systemLog);
  Logger2State logger2(linux.systemLog, linux.utilityQueues);
  const Logger2Binding logger2Binding(logger2);

  platform::JobHostClient host(linux.peerTransport, loop, platform::jobHostSocket(root));
  platform::EmbeddedJobs jobs(host);
  platform::LinuxFileReader files;
  platform::DevRandom randomDevice;
  platform::NotificationCenter center;
  platform::NamedConnections connections(
      loop, linux.peerTransport, center, linux.systemLog,
      [&](std::string_view name) { return places.connection(name); }, linux.userLines);
  const auto distributedCenter = platform::makeBusNotificationCenter(
      *linux.runLoop, platform::notificationBusAddress(linux.configuration), linux.systemLog,
      platform::Duration::zero());
  platform::LinuxExtendedAttributes attributes;
  platform::ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  addGlobalSettingsProtocol(protocols);
  // This comes after everything that requests use, also the protocols: its threads serve requests
  // until it ends.
  auto xpc = platform::LinuxXPC::make(linux.systemLog, places, std::move(linux.passedSocket),
                                      linux.peerAccounts, linux.userLines);
  if (!xpc) return fail(xpc.error());

  // All that waits for an extension does so on a thread of its own, with a connection of its own.
  const auto extensionThread = platform::LoopThread::create();
  if (!extensionThread) return fail(extensionThread.error());
  // All that waits for a settings server does so on the thread of that server.
  const auto settingsWorker = SettingsClientsWorker::make({linux, places, protocols});
  if (!settingsWorker) return fail(settingsWorker.error());
  // The operator is answered on a thread of its own, also while the main thread is busy.
  const auto operatorThread = platform::LoopThread::create();
  if (!operatorThread) return fail(operatorThread.error());
  ExtensionWorker extensionWorker(**extensionThread, linux, **signatures);
  OperatorClients operatorClients(**operatorThread, linux, places, protocols, **signatures);
  host.setProbe(extensionWorker.probeOfJobHost(loop));

  const ServiceManagerPlatform serviceManagerPlatform{
      .runLoop = loop,
      .jobs = jobs,
      .authorization = extensionWorker.authorization(),
      .exitWatcher = linux.exitWatcher,
      .files = files,
      .codeSignatures = **signatures,
      .randomDevice = randomDevice,
      .system = linux.systemInformation,
      .connections = connections,
      .distributedCenter = *distributedCenter,
      .notificationCenter = center,
      .protocols = protocols,
      .mainBundle = linux.mainBundle,
      .workersExtensions = extensionWorker.platform(),
      .onExtensionWorker =
          [&](platform::RunLoop::Callback work) { extensionWorker.perform(std::move(work)); },
      .owner = {::getuid(), ::geteuid(), ::getgid()},
      .settingsWorker = (*settingsWorker)->worker(),
      .operatorWorker = operatorClients.worker(),
      .makeHealthInfo =
          [&] {
            return std::make_unique<ORBServiceManagerHealthInfo>(
                ORBServiceManagerHealthInfo::Environment{linux.utilityQueues, connections,
                                                         protocols, linux.systemInformation});
          },
      .xpc = (*xpc)->xpc(),
      .attributes = attributes,
      .observeJobHostReturn =
          [&](std::function<void()> onReturn) {
            if (!onReturn) return host.setReturnHandler({});
            host.setReturnHandler([&operatorClients, onReturn = std::move(onReturn)] {
              operatorClients.jobHostHasReturned();
              onReturn();
            });
          },
      .withSettingsOfThisThread =
          [&](const std::function<void(const SettingsClientFactories&)>& ask) {
            askSettingsOnThisThread(linux, places, protocols, ask);
          },
      .announceStatus =
          [&linux](const std::string& status) {
            // Nothing depends on it.
            static_cast<void>(linux.readiness.announceStatus(status));
          },
  };
  platform::BackgroundServiceClasses classes;
  classes.add(ORBServiceManager::kClassName,
              [&] { return std::make_unique<ORBServiceManager>(serviceManagerPlatform); });
  platform::BackgroundServiceHost backgroundHost{loop, linux.terminationSignals, linux.readiness,
                                                 classes, report};
  const int status =
      platform::VGBackgroundServiceMain(ORBServiceManager::kClassName, argc, argv, backgroundHost);
  linux.userLines->tellCounts();  // There may be no destructors.
  // Destructors would wait for a worker that hangs.
  std::vector<platform::LoopThread*> threads = (*settingsWorker)->threads();
  threads.insert(threads.end(), {extensionThread->get(), operatorThread->get()});
  if (!endTogether(threads, std::move(*xpc), loop)) {
    platform::endProgramNow(status);
  }
  return status;
}
