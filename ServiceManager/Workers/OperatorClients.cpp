#include "ServiceManager/Workers/OperatorClients.h"

#include <chrono>
#include <string_view>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

namespace {

// Each wait of the operator's thread for the job host. A host that hangs costs two of them, and
// then a short probe once a second.
constexpr std::chrono::milliseconds kOperatorsWait{250};

}  // namespace

OperatorClients::OperatorClients(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                                 const platform::ListenerPlaces& places,
                                 const platform::ProtocolTable& protocols,
                                 platform::CodeSignatures& signatures)
    : thread_(thread),
      clients_(thread, linux, signatures),
      connections_(
          thread.loop(), clients_.transport, clients_.center, linux.systemLog,
          [&places](std::string_view name) { return places.connection(name); }, linux.userLines) {
  clients_.host.limitWaits(kOperatorsWait);
  addSettingsClientFactories(factories_, {thread.loop(), connections_, nullCenter_, clients_.center,
                                          protocols, linux.systemInformation});
  thread_.loop().post(
      [] { vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self()); });
  thread.run();
}

OperatorWorker OperatorClients::worker() {
  return {.perform = [&loop = thread_.loop()](
                         platform::RunLoop::Callback work) { loop.post(std::move(work)); },
          .runLoop = thread_.loop(),
          .connections = connections_,
          .jobs = clients_.jobs,
          .extensions = clients_.platform(),
          .settingsClientFactories = factories_};
}
