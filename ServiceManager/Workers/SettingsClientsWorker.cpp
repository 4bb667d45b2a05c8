#include "ServiceManager/Workers/SettingsClientsWorker.h"

#include <future>
#include <string_view>
#include <utility>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/Settings/SettingsOfThisThread.h"

struct SettingsClientsWorker::Parts {
  Parts(platform::AsioRunLoop& loop, platform::LinuxPlatform& linux,
        const platform::ListenerPlaces& places, const platform::ProtocolTable& protocols)
      : transport(loop, linux.peerAccounts),
        connections(loop, transport, center, linux.systemLog,
                    [&places](std::string_view name) { return places.connection(name); }),
        distributedCenter(platform::makeBusNotificationCenter(
            loop, platform::notificationBusAddress(linux.configuration), linux.systemLog)),
        objects{loop, connections, *distributedCenter, center, protocols, linux.systemInformation} {
    addSettingsClientFactories(factories, objects);
  }

  platform::NotificationCenter center;
  platform::DBusPeerTransport transport;
  platform::NamedConnections connections;
  std::unique_ptr<platform::DistributedNotificationCenter> distributedCenter;
  VantorDistantObject::Environment objects;
  SettingsClientFactories factories;
};

SettingsClientsWorker::SettingsClientsWorker(platform::LoopThread& thread,
                                             platform::LinuxPlatform& linux,
                                             const platform::ListenerPlaces& places,
                                             const platform::ProtocolTable& protocols)
    : thread_(thread) {
  std::promise<void> made;
  thread_.loop().post([&] {
    vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self());
    parts_ = std::make_unique<Parts>(thread_.loop(), linux, places, protocols);
    made.set_value();
  });
  thread_.run([this] { parts_.reset(); });
  made.get_future().wait();
}

SettingsClientsWorker::~SettingsClientsWorker() = default;

SettingsWorker SettingsClientsWorker::worker() {
  return {.perform = [&loop = thread_.loop()](
                         platform::RunLoop::Callback work) { loop.post(std::move(work)); },
          .objects = parts_->objects,
          .factories = parts_->factories};
}

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
