#include <utility>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"

// The requests of the installer and the user interface, and the checks of their senders.

using namespace platform;

void ORBServiceManager::enforceRunningForService(Label label, CompletionBlock withCompletionBlock) {
  if (!label) return;
  enforcement_.enforceRunningForService(std::string(*label), std::move(withCompletionBlock));
}

bool ORBServiceManager::enforceShutdownForService(Label label) {
  return !label || enforcement_.enforceShutdownForService(std::string(*label));
}

bool ORBServiceManager::shutdownServices(const Array& labels) {
  operatingMode_ = ORBOperatingModeInstaller;
  isInstallerAtWork_ = true;
  bool haveAllStopped = true;
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (!label) continue;
    if (!enforceShutdownForService(*label)) haveAllStopped = false;
    if (healthInfo_) healthInfo_->reportIntallerEventStartedForService(*label);
  }
  return haveAllStopped;
}

Value ORBServiceManager::pidForService(Label label) {
  if (!label) return {};
  const std::optional<ProcessId> process = jobs_.status(*label).process;
  return process ? Value(*process) : Value();
}

Value ORBServiceManager::lastExitStatusForService(Label label) {
  if (!label) return {};
  const Value status = jobs_.status(*label).lastExitStatus;
  return status.isNumber() ? status : Value();
}

void ORBServiceManager::stopServices(const Array& labels) {
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (!label) continue;
    trackServiceForUserClientShutdownRequest(*label, true);
    enforceShutdownForService(*label);
  }
}

void ORBServiceManager::startServices(const Array& labels) {
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (!label) continue;
    trackServiceForUserClientShutdownRequest(*label, false);
    enforceRunningForService(*label, nullptr);
  }
}

bool ORBServiceManager::connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) {
  return connectionAuthenticator()->connection(parent, shouldMakeNewConnection);
}

Data ORBServiceManager::authenticationDataForComponents(const Array& components) {
  return connectionAuthenticator()->authenticationDataForComponents(components);
}

bool ORBServiceManager::authenticateComponents(const Array& components, const Data& withData) {
  return connectionAuthenticator()->authenticateComponents(components, withData);
}
