#pragma once

#include <utility>

#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"
#include "ServiceManager/Workers/ExtensionClients.h"

// The daemon's own use of its extensions, on a thread that may wait for them and for the job host.
// The thread runs from the constructor on; stop it before this ends.
class ExtensionWorker {
 public:
  ExtensionWorker(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                  platform::CodeSignatures& signatures);
  ExtensionWorker(const ExtensionWorker&) = delete;
  ExtensionWorker& operator=(const ExtensionWorker&) = delete;

  KernelExtensionsPlatform platform() { return clients_.platform(); }
  // For work on the thread.
  platform::Authorization& authorization() { return authorization_; }
  // Connects to the job host on the thread, for a client on `loop`, which outlives the thread.
  platform::JobHostClient::Probe probeOfJobHost(platform::RunLoop& loop);
  void perform(platform::RunLoop::Callback work) { thread_.loop().post(std::move(work)); }

 private:
  platform::LoopThread& thread_;
  ExtensionClients clients_;
  platform::EmbeddedAuthorization authorization_{clients_.host};
};
