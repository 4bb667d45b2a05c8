#include <chrono>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/SwitchComparison.h"

using namespace platform;

namespace {

// A feature whose switch is turned off and on again at once costs no restart.
constexpr Duration kFeatureShutdownDelay = std::chrono::seconds(3);

constexpr char kClientFactorySuffix[] = "SettingsClientWithDelegate:";

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

std::string ORBServiceManager::primaryLabel() const {
  const std::string* label = serviceInfo_["Primary"].string();
  return label ? *label : std::string();
}

void ORBServiceManager::evaluateWaitingForPrimaryServiceOperatingMode() {
  switch (operatingMode_) {
    case ORBOperatingModeWaitingForPrimaryService:
      if (!isPrimaryServiceUp()) return;
      operatingMode_ = ORBOperatingModeNormal;
      evaluateSystemConfiguration();
      return;
    case ORBOperatingModeNormal:
      // Whoever starts it again is the job host, not the watchdog.
      if (!isPrimaryServiceUp()) operatingMode_ = ORBOperatingModeWaitingForPrimaryService;
      return;
    default:
      return;
  }
}

void ORBServiceManager::evaluateSystemConfiguration() {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Evaluating the system configuration");
  if (operatingMode_ != ORBOperatingModeNormal) return;
  globalSettingsDidChangeEffectTimer_.reset();

  const std::string primary = primaryLabel();
  if (isServiceBeingTrackedForUserClientShutdownRequest(primary)) {
    logStoppedByUserInterface(primary);
    return;
  }
  enforceRunningForService(primary, [this, primary, catalogue = serviceInfo_] {
    const Dictionary* services = catalogue["Services"].dictionary();
    if (!services) return;
    for (const auto& [label, entry] : *services) {
      if (label != primary) evaluateInformationForService(label);
    }
  });
  scheduleReevaluation();
}

void ORBServiceManager::evaluateInformationForService(const std::string& label) {
  if (operatingMode_ == ORBOperatingModeInstaller) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("Installer operation mode: Cannot evalaute feature "
                                        "information for service: %@ at this time",
                                        label));
    return;
  }
  if (operatingMode_ == ORBOperatingModeWaitingForPrimaryService) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("Primary Service is not ready: Cannot evalaute feature "
                                        "information for service: %@ at this time",
                                        label));
    return;
  }
  if (isServiceBeingTrackedForUserClientShutdownRequest(label)) {
    logStoppedByUserInterface(label);
    return;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Evaluating service: %@", label));
  if (serviceTypeForLabel(label, serviceInfo_) == kCoreService) {
    enforceRunningForService(label, nullptr);
  } else {
    evaluateFeatureService(label);
  }
}

void ORBServiceManager::evaluateFeatureService(const std::string& label) {
  const Value features = serviceEntryWithLabel(label, serviceInfo_)["Features"];
  if (!features.array()) {
    vantorlogger2_line(ASL_LEVEL_ERR, "Malformed features referrences information encountered");
    return;
  }
  bool shutDown = true;
  for (const Value& feature : *features.array()) {
    if (feature.string() && evaluateFeature(label, *feature.string())) shutDown = false;
  }
  if (!shutDown) return;
  const auto due = dueShutdowns_.emplace(label, platform_.runLoop.now() + kFeatureShutdownDelay);
  performAfterDelay(kFeatureShutdownDelay, [this, label, due] {
    dueShutdowns_.erase(due);
    enforceShutdownForService(label);
  });
}

bool ORBServiceManager::evaluateFeature(const std::string& label, const std::string& feature) {
  const Value config = featureEntryWithFeatureName(feature, serviceInfo_)["Config"];
  if (!config.array()) return false;
  bool isWanted = false;
  for (const Value& configuration : *config.array()) {
    const std::string* source = configuration["Source"].string();
    SettingsClient* client = source ? configurationWithSelectorPrefix(*source) : nullptr;
    const Dictionary* switches = configuration["Switches"].dictionary();
    if (!switches) continue;
    for (const auto& [key, expected] : *switches) {
      if (evaluateSwitch(label, feature, key, expected, client)) isWanted = true;
    }
  }
  return isWanted;
}

bool ORBServiceManager::evaluateSwitch(const std::string& label, const std::string& feature,
                                       const std::string& key, const Value& expected,
                                       SettingsClient* client) {
  const Value current = client ? client->objectForKey(key) : Value();
  if (current.isNil()) {
    if (operatingMode_ == ORBOperatingModeNormal) {
      vantorlogger2_line(ASL_LEVEL_WARNING,
                         stringWithFormat("%@ exposes an invalid configuration switch key \"%@\" "
                                          "referenced by service %@",
                                          feature, key, label));
    }
    return false;
  }
  switch (compareSwitch(expected, current)) {
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

SettingsClient* ORBServiceManager::configurationWithSelectorPrefix(const std::string& prefix) {
  if (!configurationClients_) configurationClients_.emplace();
  if (const auto known = configurationClients_->find(prefix);
      known != configurationClients_->end()) {
    return known->second.get();
  }
  // Also a failed one, whatever it throws: it is not tried again.
  const auto entry = configurationClients_->emplace(prefix, nullptr).first;
  entry->second = makeSettingsClient(prefix + kClientFactorySuffix);
  return entry->second.get();
}

std::unique_ptr<SettingsClient> ORBServiceManager::makeSettingsClient(const std::string& selector) {
  const auto* factory = platform_.settingsClientFactories.find(selector);
  SettingsClientResult made =
      factory ? (*factory)(*this)
              : std::unexpected(NSException{kNSInvalidArgumentException,
                                            "+[KLXGlobalSettingsClient " + selector +
                                                "]: unrecognized selector sent to class",
                                            {}});
  if (made) return std::move(*made);
  vantorlogger2_line(
      ASL_LEVEL_ERR,
      stringWithFormat("Unable to resolve method name for selector: %@: Exception: %@", selector,
                       made.error()));
  return nullptr;
}
