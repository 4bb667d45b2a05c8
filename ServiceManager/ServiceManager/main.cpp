// The service manager daemon. It has no options: Service.plist in its bundle lists the services,
// and etc/vantor/platform.plist of the platform root describes the system.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Logger/Logger.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Files/LinuxExtendedAttributes.h"
#include "Platform/Linux/Files/LinuxFileReader.h"
#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/KernelExtensions/KmodModules.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Logging/LogAtEnd.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/RunLoops/LoopThread.h"
#include "Platform/Linux/SystemCalls/CoreDumps.h"
#include "Platform/Linux/SystemFacts/DevRandom.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"
#include "ServiceManager/ServiceManager/OperatorWorker.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Settings/NullNotificationCenter.h"
#include "ServiceManager/Settings/SettingsOfThisThread.h"

namespace {

// The connections belong to the calling thread alone. If no descriptor is left, `ask` is not
// called.
void askSettingsOnThisThread(platform::LinuxPlatform& linux, const platform::ListenerPlaces& places,
                             const platform::ProtocolTable& protocols,
                             const std::function<void(const SettingsClientFactories&)>& ask) {
  const auto loop = platform::AsioRunLoop::create();
  if (!loop) return;
  platform::DBusPeerTransport transport(**loop, linux.peerAccounts);
  const auto placeOfName = [&](std::string_view name) { return places.connection(name); };
  withSettingsOfThisThread(SettingsThread{**loop, transport, linux.systemLog, placeOfName,
                                          protocols, linux.systemInformation},
                           ask);
}

// How long the program waits for its workers at its end. A server, an extension, or a file that
// can't be read must not hold it up.
constexpr std::chrono::milliseconds kWorkersEnd{500};

// The clients of settings servers, for one thread that may wait for them.
class SettingsClientsWorker {
 public:
  SettingsClientsWorker(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                        const platform::ListenerPlaces& places,
                        const platform::ProtocolTable& protocols)
      : thread_(thread) {
    std::promise<void> made;
    thread_.loop().post([&] {
      vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self());
      parts_.emplace(thread_.loop(), linux, places, protocols);
      made.set_value();
    });
    thread_.run([this] { parts_.reset(); });
    made.get_future().wait();
  }
  SettingsClientsWorker(const SettingsClientsWorker&) = delete;
  SettingsClientsWorker& operator=(const SettingsClientsWorker&) = delete;

  SettingsWorker worker() {
    return {.perform = [&loop = thread_.loop()](
                           platform::RunLoop::Callback work) { loop.post(std::move(work)); },
            .objects = parts_->objects,
            .factories = parts_->factories};
  }

 private:
  // They are made and end on the thread.
  struct Parts {
    Parts(platform::AsioRunLoop& loop, platform::LinuxPlatform& linux,
          const platform::ListenerPlaces& places, const platform::ProtocolTable& protocols)
        : transport(loop, linux.peerAccounts),
          connections(loop, transport, center, linux.systemLog,
                      [&places](std::string_view name) { return places.connection(name); }),
          distributedCenter(platform::makeBusNotificationCenter(
              loop, platform::notificationBusAddress(linux.configuration), linux.systemLog)),
          objects{loop,   connections, *distributedCenter,
                  center, protocols,   linux.systemInformation} {
      addSettingsClientFactories(factories, objects);
    }
    platform::NotificationCenter center;
    platform::DBusPeerTransport transport;
    platform::NamedConnections connections;
    std::unique_ptr<platform::DistributedNotificationCenter> distributedCenter;
    VantorDistantObject::Environment objects;
    SettingsClientFactories factories;
  };

  platform::LoopThread& thread_;
  std::optional<Parts> parts_;
};

// The job host and the extensions of the platform, for one thread that may wait for them.
struct ExtensionClients {
  ExtensionClients(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                   platform::CodeSignatures& signatures)
      : root(linux.configuration.root),
        transport(thread.loop(), linux.peerAccounts),
        host(transport, thread.loop(), platform::jobHostSocket(root)),
        jobs(host),
        controls(root),
        tasks(thread.loop(), center, {.descriptorLimit = linux.originalDescriptorLimit}),
        extensions(
            {thread.loop(), jobs, signatures, controls, modules, linux.systemLog},
            platform::LinuxKernelExtensions::folders(root, linux.mainBundle.resourcePath())) {}

  KernelExtensionsPlatform platform() { return {extensions, controls, tasks, root}; }

  const std::string root;
  platform::NotificationCenter center;
  platform::DBusPeerTransport transport;
  platform::JobHostClient host;
  platform::EmbeddedJobs jobs;
  platform::LinuxKernelControls controls;
  platform::KmodModules modules;
  platform::LinuxTasks tasks;
  platform::LinuxKernelExtensions extensions;
};

// The daemon's own use of its extensions.
class ExtensionWorker {
 public:
  ExtensionWorker(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                  platform::CodeSignatures& signatures)
      : thread_(thread), clients_(thread, linux, signatures) {
    perform(
        [] { vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self()); });
    thread.run();
  }
  ExtensionWorker(const ExtensionWorker&) = delete;
  ExtensionWorker& operator=(const ExtensionWorker&) = delete;

  KernelExtensionsPlatform platform() { return clients_.platform(); }
  void perform(platform::RunLoop::Callback work) { thread_.loop().post(std::move(work)); }

 private:
  platform::LoopThread& thread_;
  ExtensionClients clients_;
};

// Each wait of the operator's thread for the job host. A host that hangs costs two of them, and
// then a short probe once a second.
constexpr std::chrono::milliseconds kOperatorsWait{250};

// The clients that the operator's server uses, for one thread that may wait for the job host, a
// settings server or an extension.
class OperatorClients {
 public:
  OperatorClients(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                  const platform::ListenerPlaces& places, const platform::ProtocolTable& protocols,
                  platform::CodeSignatures& signatures)
      : thread_(thread),
        clients_(thread, linux, signatures),
        connections_(
            thread.loop(), clients_.transport, clients_.center, linux.systemLog,
            [&places](std::string_view name) { return places.connection(name); }, linux.userLines) {
    clients_.host.limitWaits(kOperatorsWait);
    addSettingsClientFactories(factories_, {thread.loop(), connections_, nullCenter_,
                                            clients_.center, protocols, linux.systemInformation});
    thread_.loop().post(
        [] { vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self()); });
    thread.run();
  }
  OperatorClients(const OperatorClients&) = delete;
  OperatorClients& operator=(const OperatorClients&) = delete;

  // The job host answers again, as another client knows.
  void jobHostHasReturned() {
    thread_.loop().post([this] { clients_.host.waitAgain(); });
  }

  OperatorWorker worker() {
    return {.perform = [&loop = thread_.loop()](
                           platform::RunLoop::Callback work) { loop.post(std::move(work)); },
            .runLoop = thread_.loop(),
            .connections = connections_,
            .jobs = clients_.jobs,
            .extensions = clients_.platform(),
            .settingsClientFactories = factories_};
  }

 private:
  platform::LoopThread& thread_;
  ExtensionClients clients_;
  NullNotificationCenter nullCenter_;
  platform::NamedConnections connections_;
  SettingsClientFactories factories_;
};

// Whether all threads, and those of the XPC, have ended in time.
bool endTogether(std::initializer_list<platform::LoopThread*> threads,
                 std::unique_ptr<platform::LinuxXPC> xpc, const platform::RunLoop& loop) {
  for (platform::LoopThread* thread : threads) thread->askToStop();
  const std::future<void> endOfXPC = platform::LinuxXPC::endAside(std::move(xpc));
  const platform::Instant deadline = loop.now() + kWorkersEnd;
  const auto left = [&] { return std::max(deadline - loop.now(), platform::Duration::zero()); };
  bool haveEnded = true;
  for (platform::LoopThread* thread : threads) haveEnded = thread->stopWithin(left()) && haveEnded;
  return endOfXPC.wait_for(left()) == std::future_status::ready && haveEnded;
}

int fail(const platform::Error& error) {
  std::fputs(("servicemanagerd: " + platform::describe(error) + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
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
  platform::EmbeddedAuthorization authorization(host);
  platform::LinuxFileReader files;
  platform::DevRandom randomDevice;
  platform::NotificationCenter center;
  platform::NamedConnections connections(
      loop, linux.peerTransport, center, linux.systemLog,
      [&](std::string_view name) { return places.connection(name); }, linux.userLines);
  const auto distributedCenter = platform::makeBusNotificationCenter(
      *linux.runLoop, platform::notificationBusAddress(linux.configuration), linux.systemLog);
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
  // So does all that waits for a settings server.
  const auto settingsThread = platform::LoopThread::create();
  if (!settingsThread) return fail(settingsThread.error());
  // The operator is answered on a thread of its own, also while the main thread is busy.
  const auto operatorThread = platform::LoopThread::create();
  if (!operatorThread) return fail(operatorThread.error());
  ExtensionWorker extensionWorker(**extensionThread, linux, **signatures);
  SettingsClientsWorker settingsWorker(**settingsThread, linux, places, protocols);
  OperatorClients operatorClients(**operatorThread, linux, places, protocols, **signatures);

  const ServiceManagerPlatform serviceManagerPlatform{
      .runLoop = loop,
      .jobs = jobs,
      .authorization = authorization,
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
      .settingsWorker = settingsWorker.worker(),
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
  };
  platform::BackgroundServiceClasses classes;
  classes.add(ORBServiceManager::kClassName,
              [&] { return std::make_unique<ORBServiceManager>(serviceManagerPlatform); });
  platform::BackgroundServiceHost backgroundHost{loop, linux.terminationSignals, linux.readiness,
                                                 classes, report};
  const int status =
      platform::VGBackgroundServiceMain(ORBServiceManager::kClassName, argc, argv, backgroundHost);
  // Destructors would wait for a worker that hangs.
  if (!endTogether({settingsThread->get(), extensionThread->get(), operatorThread->get()},
                   std::move(*xpc), loop)) {
    platform::endProgramNow(status);
  }
  return status;
}
