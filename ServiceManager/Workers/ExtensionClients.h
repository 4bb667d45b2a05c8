#pragma once

#include <string>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/KernelExtensions/KmodModules.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelControls.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/RunLoops/LoopThread.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "ServiceManager/Supervision/ExtensionLoad.h"

// The job host and the extensions of the platform, for one thread that may wait for them. Made
// before the thread runs; ends after it has ended.
struct ExtensionClients {
  // All of them outlive this.
  ExtensionClients(platform::LoopThread& thread, platform::LinuxPlatform& linux,
                   platform::CodeSignatures& signatures);

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
