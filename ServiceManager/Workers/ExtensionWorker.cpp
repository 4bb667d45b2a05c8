#include "ServiceManager/Workers/ExtensionWorker.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

ExtensionWorker::ExtensionWorker(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                                 platform::CodeSignatures& signatures)
    : thread_(thread), clients_(thread, linux, signatures) {
  perform([] { vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self()); });
  thread.run();
}

platform::JobHostClient::Probe ExtensionWorker::probeOfJobHost(platform::RunLoop& loop) {
  return [this, &loop](auto answer) {
    perform([this, &loop, answer = std::move(answer)]() mutable {
      using Failure = platform::PeerConnectFailure::Kind;
      const auto connected =
          clients_.transport.connect(platform::jobHostSocket(clients_.root),
                                     {.timeout = platform::JobHostClient::kProbeInterval,
                                      .whileWaiting = platform::WhileWaiting::kServeNothing});
      const bool mayConnect = connected || connected.error().kind != Failure::kTimedOut;
      loop.post([answer = std::move(answer), mayConnect]() mutable { answer(mayConnect); });
    });
  };
}
