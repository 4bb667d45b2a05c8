#include "ServiceManager/Workers/ExtensionWorker.h"

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

ExtensionWorker::ExtensionWorker(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                                 platform::CodeSignatures& signatures)
    : thread_(thread), clients_(thread, linux, signatures) {
  perform([] { vantorlogger2_open(ORBServiceManager::kClassName, platform::mach_thread_self()); });
  thread.run();
}
