#include "ServiceManager/Workers/SettingsClientsWorker.h"

#include <algorithm>
#include <iterator>
#include <string_view>
#include <utility>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/Settings/SettingsOfThisThread.h"

namespace {

bool isSettingsServer(std::string_view server) {
  return std::ranges::any_of(kGlobalSettingsDomains, [server](const GlobalSettingsDomain& domain) {
    return server == domain.prefix;
  });
}

}  // namespace

static_assert(SettingsClientsWorker::kMaximumThreads == std::size(kGlobalSettingsDomains) + 1);

class SettingsClientsWorker::Thread {
 public:
  Thread(std::unique_ptr<platform::LoopThread> thread, const Environment& environment)
      : environment_(environment), thread_(std::move(thread)) {
    loop().post(
        [] { vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self()); });
    thread_->run([this] { parts_.reset(); });
  }

  platform::LoopThread* thread() const { return thread_.get(); }
  void perform(SettingsWorker::Work work) {
    loop().post([this, work = std::move(work)]() mutable {
      if (!parts_) parts_ = std::make_unique<Parts>(loop(), environment_);
      work(parts_->parts);
    });
  }

 private:
  // The clients of one thread, made for its first work and ended on it.
  struct Parts {
    Parts(platform::AsioRunLoop& loop, const SettingsClientsWorker::Environment& environment)
        : transport(loop, environment.linux.peerAccounts),
          connections(loop, transport, center, environment.linux.systemLog,
                      [&places = environment.places](std::string_view name) {
                        return places.connection(name);
                      }),
          distributedCenter(platform::makeBusNotificationCenter(
              loop, platform::notificationBusAddress(environment.linux.configuration),
              environment.linux.systemLog)),
          parts{{loop, connections, *distributedCenter, center, environment.protocols,
                 environment.linux.systemInformation},
                factories} {
      addSettingsClientFactories(factories, parts.objects);
    }

    platform::NotificationCenter center;
    platform::DBusPeerTransport transport;
    platform::NamedConnections connections;
    std::unique_ptr<platform::DistributedNotificationCenter> distributedCenter;
    SettingsClientFactories factories;
    const SettingsParts parts;
  };

  platform::AsioRunLoop& loop() { return thread_->loop(); }

  const Environment environment_;
  std::unique_ptr<Parts> parts_;  // the thread's
  const std::unique_ptr<platform::LoopThread> thread_;
};

SettingsClientsWorker::SettingsClientsWorker(const Environment& environment)
    : environment_(environment) {}

platform::Result<std::unique_ptr<SettingsClientsWorker>> SettingsClientsWorker::make(
    const Environment& environment) {
  std::unique_ptr<SettingsClientsWorker> made(new SettingsClientsWorker(environment));
  for (int thread = 0; thread < 2; ++thread) {
    if (auto started = made->startThread(); !started)
      return std::unexpected(std::move(started.error()));
  }
  return made;
}

SettingsClientsWorker::~SettingsClientsWorker() = default;

platform::Result<SettingsClientsWorker::Thread*> SettingsClientsWorker::startThread() {
  auto thread = platform::LoopThread::create();
  if (!thread) return std::unexpected(std::move(thread.error()));
  threads_.push_back(std::make_unique<Thread>(std::move(*thread), environment_));
  return threads_.back().get();
}

SettingsClientsWorker::Thread& SettingsClientsWorker::threadOf(const std::string& server) {
  const auto known = threadOfServer_.find(server);
  if (known != threadOfServer_.end()) return *known->second;
  Thread* thread = threads_.front().get();
  if (threadOfServer_.empty()) {
    thread = threads_.back().get();
  } else if (isSettingsServer(server)) {
    thread = startThread().value_or(thread);
  }
  return *threadOfServer_.emplace(server, thread).first->second;
}

SettingsWorker::OnSharedThread SettingsClientsWorker::giveThread(const std::string& server) {
  Thread* const shared = threads_.front().get();
  const auto known = threadOfServer_.find(server);
  const bool isSharing = known != threadOfServer_.end() && known->second == shared;
  if (!isSharing || !isSettingsServer(server)) return {};
  const auto started = startThread();
  if (!started) return {};
  known->second = *started;
  return [shared](SettingsWorker::Work work) { shared->perform(std::move(work)); };
}

SettingsWorker SettingsClientsWorker::worker() {
  return {
      .perform = [this](const std::string& server,
                        SettingsWorker::Work work) { threadOf(server).perform(std::move(work)); },
      .giveThread = [this](const std::string& server) { return giveThread(server); }};
}

std::vector<platform::LoopThread*> SettingsClientsWorker::threads() const {
  std::vector<platform::LoopThread*> threads;
  for (const auto& thread : threads_) threads.push_back(thread->thread());
  return threads;
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
