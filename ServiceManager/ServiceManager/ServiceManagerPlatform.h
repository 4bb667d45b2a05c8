#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Files/Bundle.h"
#include "Platform/Files/ExtendedAttributes.h"
#include "Platform/Files/FileReader.h"
#include "Platform/Jobs/Authorization.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Processes/Task.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/RandomDevice.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/XPC/XPC.h"
#include "ServiceManager/ServiceManager/ServiceHealth.h"

// Whose program runs, as the kernel says.
struct ProcessOwner {
  std::uint32_t realUser = 0;
  std::uint32_t effectiveUser = 0;
  std::uint32_t realGroup = 0;
};

// What kernel extensions are loaded with.
struct KernelExtensionsPlatform {
  platform::KernelExtensions& loader;
  platform::KernelControls& controls;
  platform::Tasks& tasks;
  std::string root;  // of the platform: older releases have a program there that unloads
};

// Everything that the daemon needs from outside. It outlives the daemon.
struct ServiceManagerPlatform {
  platform::RunLoop& runLoop;
  platform::Jobs& jobs;
  platform::Authorization& authorization;
  platform::ExitWatcher& exitWatcher;
  platform::FileReader& files;
  platform::CodeSignatures& codeSignatures;
  platform::RandomDevice& randomDevice;
  const platform::SystemInformation& system;
  platform::NamedConnections& connections;
  platform::DistributedNotificationCenter& distributedCenter;
  platform::NotificationCenter& notificationCenter;
  const platform::ProtocolTable& protocols;
  const platform::Bundle& mainBundle;
  KernelExtensionsPlatform extensions;
  ProcessOwner owner;
  const SettingsClientFactories& settingsClientFactories;
  // Makes the health record of a product that has one; empty where none is kept.
  std::function<std::unique_ptr<ServiceHealth>()> makeHealthInfo;
  platform::XPC& xpc;
  platform::ExtendedAttributes& attributes;
  // Takes whom to call each time that the job host answers again after it has failed somebody by
  // its silence or absence; an empty one for nobody. Empty where no host can be missed.
  std::function<void(std::function<void()> onReturn)> observeJobHostReturn;
  // Does something with factories whose clients belong to the calling thread, which need not be the
  // main one, and end with it. Where it is empty, the factories above are used.
  std::function<void(const std::function<void(const SettingsClientFactories&)>&)>
      withSettingsOfThisThread;
};
