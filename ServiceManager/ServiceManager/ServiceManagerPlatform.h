#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Files/Bundle.h"
#include "Platform/Files/ExtendedAttributes.h"
#include "Platform/Files/FileReader.h"
#include "Platform/Jobs/Authorization.h"
#include "Platform/Jobs/Jobs.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/RandomDevice.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/XPC/XPC.h"
#include "ServiceManager/ServiceManager/LastLoggedInUser.h"
#include "ServiceManager/ServiceManager/OperatorWorker.h"
#include "ServiceManager/Settings/SettingsQuestions.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/ServiceHealth.h"

// The user and the group that this program runs as, as the kernel says.
struct ProcessOwner {
  std::uint32_t realUser = 0;
  std::uint32_t effectiveUser = 0;
  std::uint32_t realGroup = 0;
};

// The parts of the platform that the daemon uses. They outlive the daemon; none of the functions is
// empty.
struct ServiceManagerPlatform {
  platform::RunLoop& runLoop;
  platform::Jobs& jobs;
  platform::Authorization& authorization;  // for work on the extension worker
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
  // Only work on this worker uses them, since they wait for extensions.
  KernelExtensionsPlatform workersExtensions;
  std::function<void(platform::RunLoop::Callback work)> onExtensionWorker;
  ProcessOwner owner;
  SettingsWorker settingsWorker;
  OperatorWorker operatorWorker;
  // Makes the health record of a product that keeps one; may return null.
  std::function<std::unique_ptr<ServiceHealth>()> makeHealthInfo;
  platform::XPC& xpc;
  platform::ExtendedAttributes& attributes;
  // Sets the one subscriber that is called each time the job host answers again after a request
  // that it did not answer; an empty function for none.
  std::function<void(std::function<void()> onReturn)> observeJobHostReturn;
  // Calls a function with factories whose clients belong to the calling thread, which need not be
  // the main thread, and end with the call.
  LastLoggedInUser::WithFactories withSettingsOfThisThread;
  // Tells the program that started the daemon its state in a few words; empty if it is as usual.
  // Optional.
  std::function<void(const std::string& status)> announceStatus = {};
};
