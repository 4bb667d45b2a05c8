#pragma once

#include <functional>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/Supervision/ExtensionLoad.h"

// The parts of the platform that answer the operator on a thread of their own.
struct OperatorWorker {
  // Runs work on that thread, one piece after the other.
  std::function<void(platform::RunLoop::Callback work)> perform;
  // For work on that thread only.
  platform::RunLoop& runLoop;
  platform::NamedConnections& connections;
  platform::Jobs& jobs;
  KernelExtensionsPlatform extensions;  // waits a second at most
  const SettingsClientFactories& settingsClientFactories;
};
