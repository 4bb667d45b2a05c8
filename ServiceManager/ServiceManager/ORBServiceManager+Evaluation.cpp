#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/FeatureSwitches.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/Catalogue/SwitchComparison.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

namespace {

void logStoppedByUserInterface(const std::string& label) {
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      stringWithFormat(
          "%@ is not actively being monitored as per the request of the user interface", label));
}

}  // namespace

bool ORBServiceManager::isPrimaryServiceUp() {
  return primaryServiceNotificationClient_ &&
         primaryServiceNotificationClient_->sendMessage("isServerUp") == Value(true);
}

void ORBServiceManager::evaluateWaitingForPrimaryServiceOperatingMode() {
  switch (operatingMode_) {
    case ORBOperatingModeWaitingForPrimaryService:
      if (!isPrimaryServiceUp()) return;
      operatingMode_ = ORBOperatingModeNormal;
      evaluateSystemConfiguration();
      return;
    case ORBOperatingModeNormal:
      // The job host starts it again, not the watchdog.
      if (!isPrimaryServiceUp()) operatingMode_ = ORBOperatingModeWaitingForPrimaryService;
      return;
    default:
      return;
  }
}

void ORBServiceManager::evaluateSystemConfiguration() {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Evaluating the system configuration");
  const std::string primary = primaryLabel();
  const EvaluationPermission permission = permissionToEvaluate(primary);
  if (permission == EvaluationPermission::kInstallerIsAtWork ||
      permission == EvaluationPermission::kPrimaryIsNotReady) {
    return;
  }
  timers_.cancelSettingsChangeTimer();
  if (permission == EvaluationPermission::kStoppedByUserInterface) {
    logStoppedByUserInterface(primary);
    return;
  }
  if (waitForPrimary_.expired()) {
    auto wait = std::make_shared<int>();
    waitForPrimary_ = wait;
    enforceRunningForService(primary, [this, primary, catalogue = catalogue_, wait]() mutable {
      wait.reset();
      evaluateOtherServices(catalogue, primary);
    });
  } else {
    enforceRunningForService(primary, nullptr);
  }
  if (waitForPrimary_.expired()) scheduleReevaluation();  // The primary service can't run.
}

// When all have had their turn, services that are not ready are noticed.
void ORBServiceManager::evaluateOtherServices(const ServiceCatalogue& catalogue,
                                              const std::string& primary) {
  const Dictionary* services = catalogue.services().dictionary();
  if (!services) return;
  for (const auto& [label, entry] : *services) {
    if (label == primary) continue;
    turns_.add({"evaluate", label}, [this, label] { evaluateInformationForService(label); });
  }
}

void ORBServiceManager::evaluateSystemConfigurationLater() {
  turns_.add({"evaluate"}, [this] { evaluateSystemConfiguration(); });
}

EvaluationPermission ORBServiceManager::permissionToEvaluate(const std::string& label) const {
  return evaluationPermission(operatingMode_,
                              isServiceBeingTrackedForUserClientShutdownRequest(label));
}

void ORBServiceManager::evaluateInformationForService(const std::string& label) {
  switch (permissionToEvaluate(label)) {
    case EvaluationPermission::kInstallerIsAtWork:
      vantorlogger2_line(ASL_LEVEL_DEBUG,
                         stringWithFormat("Installer operation mode: Cannot evalaute feature "
                                          "information for service: %@ at this time",
                                          label));
      return;
    case EvaluationPermission::kPrimaryIsNotReady:
      vantorlogger2_line(ASL_LEVEL_DEBUG,
                         stringWithFormat("Primary Service is not ready: Cannot evalaute feature "
                                          "information for service: %@ at this time",
                                          label));
      return;
    case EvaluationPermission::kStoppedByUserInterface:
      logStoppedByUserInterface(label);
      return;
    case EvaluationPermission::kGranted:
      break;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Evaluating service: %@", label));
  if (catalogue_.serviceType(label) == kCoreService) {
    enforceRunningForService(label, nullptr);
  } else {
    evaluateFeatureService(label);
  }
}

void ORBServiceManager::evaluateFeatureService(const std::string& label) {
  const auto configurations = featureConfigurations(catalogue_, label);
  if (!configurations) {
    vantorlogger2_line(ASL_LEVEL_ERR, "Malformed features referrences information encountered");
    return;
  }
  bool shutDown = true;
  for (const FeatureConfiguration& configuration : *configurations) {
    SettingsClient* client =
        configuration.source ? configurationWithSelectorPrefix(*configuration.source) : nullptr;
    for (const auto& [key, expected] : configuration.switches) {
      if (evaluateSwitch(label, configuration.feature, key, expected, client)) shutDown = false;
    }
  }
  if (!shutDown) return;
  timers_.shutDownLater(label, [this, label] { enforceShutdownForService(label); });
}

bool ORBServiceManager::evaluateSwitch(const std::string& label, const std::string& feature,
                                       const std::string& key, const Value& expected,
                                       SettingsClient* client) {
  const Value current = client ? client->objectForKey(key) : Value();
  switch (compareSwitch(expected, current)) {
    case SwitchComparison::kAbsent:
      if (operatingMode_ == ORBOperatingModeNormal) {
        vantorlogger2_line(ASL_LEVEL_WARNING,
                           stringWithFormat("%@ exposes an invalid configuration switch key \"%@\" "
                                            "referenced by service %@",
                                            feature, key, label));
      }
      return false;
    case SwitchComparison::kDiffers:
      return false;
    case SwitchComparison::kRaises:
      vantorlogger2_line(
          ASL_LEVEL_ERR,
          stringWithFormat("%@:The expected object for the switchkey \"%@\" do not match the "
                           "return switchkey value \"%@\" of type \"%@\"",
                           label, key, current, className(current)));
      return false;
    case SwitchComparison::kMatches:
      enforceRunningForService(label, nullptr);
      return true;
  }
  return false;
}
