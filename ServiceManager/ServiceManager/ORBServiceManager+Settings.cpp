#include <chrono>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "ServiceManager/ServiceManager/MinimumOSVersion.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

constexpr std::chrono::duration<double> kSettingsChangeDelay{2.0};
constexpr Duration kReevaluationPeriod = std::chrono::seconds(20);
// By then a server that did not answer is asked again.
constexpr Duration kSilenceIsOver = NamedConnections::kHungServerPause + std::chrono::seconds(1);
constexpr Duration kEvaluationDelay = std::chrono::milliseconds(100);

Value setOfLabels(const std::set<std::string>& labels) {
  return Array(labels.begin(), labels.end());
}

}  // namespace

void ORBServiceManager::handleGlobalSettingsServerDidStart(
    const DistributedNotification& notification) {
  // The client observes this notification, too, but after us, and until it has heard that the
  // server is a new one it does not ask one that was silent lately.
  if (primaryServiceNotificationClient_)
    primaryServiceNotificationClient_->serverDidStart(notification);
  if (!isPrimaryServiceUp()) return;
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Primary service did start and ready to handle requests");
  if (operatingMode_ == ORBOperatingModeInstaller) return;
  // Its settings may be others than before: everything is decided anew, also from normal mode.
  operatingMode_ = ORBOperatingModeWaitingForPrimaryService;
  evaluateWaitingForPrimaryServiceOperatingMode();
}

void ORBServiceManager::handleGlobalSettingsServerWillShutdown(
    const DistributedNotification& /*notification*/) {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Primary service is shutting down");
  operatingMode_ = ORBOperatingModeWaitingForPrimaryService;  // The installer's mode ends, too.
}

// What the watchdog would find out in up to a quarter of an hour is found out now; what is decided
// in normal mode is decided anew.
void ORBServiceManager::decideAnew() {
  const bool wasNormal = operatingMode_ == ORBOperatingModeNormal;
  evaluateWaitingForPrimaryServiceOperatingMode();
  if (wasNormal && operatingMode_ == ORBOperatingModeNormal) evaluateSystemConfiguration();
}

// The primary service may have gone, or come, or both, and the settings may be others.
void ORBServiceManager::handleNotificationsReturn() {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Notifications may have been missed");
  // None of them has heard of a start either, and one that was silent is asked again.
  if (primaryServiceNotificationClient_) primaryServiceNotificationClient_->serverDidStart({});
  if (configurationClients_) {
    for (const auto& [prefix, client] : *configurationClients_) {
      if (client) client->forgetConnection();
    }
  }
  decideAnew();
  if (operatingMode_ != ORBOperatingModeWaitingForPrimaryService) return;
  // A server that only stood still announces no start, and the watchdog is long in coming.
  performAfterDelay(kSilenceIsOver, [this] {
    if (operatingMode_ == ORBOperatingModeWaitingForPrimaryService)
      evaluateWaitingForPrimaryServiceOperatingMode();
  });
}

// The evaluation passes over what the user interface has stopped, and so over what still runs of
// it.
void ORBServiceManager::endWhatWasToBeStopped() {
  const Dictionary services = monitoredProcessesInfo_;  // Stopping one changes its record.
  for (const auto& [label, record] : services) {
    if (!isServiceBeingTrackedForUserClientShutdownRequest(label)) continue;
    const Value job = copyJobDictionary(label);
    if (!job.isNil() && !isJobUnknown(job)) enforceShutdownForService(label);
  }
}

// Jobs that could not be submitted, removed or told of are nobody else's business: the watchdog
// starts none, and services are retried by themselves only where there is a health record.
//
// The primary service comes first, as at the start: without its settings the services that hang on
// them would all be stopped. It may be what could not be started.
void ORBServiceManager::handleJobHostReturn() {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "The job host answers again");
  if (operatingMode_ != ORBOperatingModeInstaller) endWhatWasToBeStopped();
  decideAnew();
  if (operatingMode_ != ORBOperatingModeWaitingForPrimaryService || isInstallerAtWork_) return;
  if (isServiceBeingTrackedForUserClientShutdownRequest(primaryLabel())) return;
  enforceRunningForService(primaryLabel(), nullptr);
}

void ORBServiceManager::handleGlobalSettingsDidChange(const DistributedNotification& notification) {
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Notification received for global settings change: %@",
                                      notification.userInfo["KLXGlobalSettingsKeyModified"]));
  // Spent or not: only an evaluation in normal mode makes room for another.
  if (globalSettingsDidChangeEffectTimer_) return;
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Will evaluate the system configuration in %f seconds",
                                      kSettingsChangeDelay.count()));
  const auto delay = std::chrono::duration_cast<Duration>(kSettingsChangeDelay);
  settingsEvaluationDue_ = platform_.runLoop.now() + delay;
  globalSettingsDidChangeEffectTimer_ = platform_.runLoop.startTimer(
      delay, RunLoop::Repeat::kOnce, [this] { evaluateSystemConfiguration(); });
}

void ORBServiceManager::globalSettingsServerDidRestart(SettingsClient& /*client*/) {
  evaluateSystemConfiguration();
}

bool ORBServiceManager::evaluateServices() {
  if (healthInfo_) healthInfo_->reportInstallerEventFinished();
  // Later, so that the installer has its answer at once.
  performAfterDelay(kEvaluationDelay, [this] { evaluateRunningModeAfterInstallerEvent(); });
  return true;
}

void ORBServiceManager::evaluateRunningModeAfterInstallerEvent() {
  isInstallerAtWork_ = false;
  operatingMode_ = ORBOperatingModeNormal;
  if (!isPrimaryServiceUp()) {
    operatingMode_ = ORBOperatingModeWaitingForPrimaryService;
    enforceRunningForService(primaryLabel(), nullptr);
    return;
  }
  performAfterDelay(kEvaluationDelay, [this] { evaluateSystemConfiguration(); });
}

void ORBServiceManager::scheduleReevaluation() {
  if (reevaluationTimer_) return;
  if (!healthInfo_ || healthInfo_->problemServices().empty()) return;
  reevaluationDue_ = platform_.runLoop.now() + kReevaluationPeriod;
  reevaluationTimer_ =
      platform_.runLoop.startTimer(kReevaluationPeriod, RunLoop::Repeat::kOnce,
                                   [this] { reevaluateConfiguration(reevaluationTimer_.get()); });
}

void ORBServiceManager::reevaluateConfiguration(const RunLoopHandle* /*timer*/) {
  reevaluationTimer_.reset();
  const std::set<std::string> labels =
      healthInfo_ ? healthInfo_->problemServices() : std::set<std::string>();
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Reevaluating configuration for service(s): %@",
                                      healthInfo_ ? setOfLabels(labels) : Value()));
  for (const std::string& label : labels) enforceRunningForService(label, nullptr);
  scheduleReevaluation();
}

bool ORBServiceManager::checkOSSupportForService(const std::string& label) {
  const Value version = serviceEntryWithLabel(label, serviceInfo_)["MinimumOSVersion"];
  if (version.isNil()) return true;
  const auto needed = kernelMajorNumberForMinimumOSVersion(version);
  if (!needed) {
    vantorlogger2_line(
        ASL_LEVEL_ERR,
        stringWithFormat("Unknown OS version: '%@'.  Not starting service", version));
    return false;
  }
  return NSProcessInfo::Extensions::systemMajorNumber(&platform_.system) >= *needed;
}

Value ORBServiceManager::getLastLoggedInUserHomeDirectory() {
  // A client of its own: the answer must not depend on what the catalogue's features made before.
  Value home;
  const auto ask = [&](const SettingsClientFactories& factories) {
    const auto* factory = factories.find("cmxSettingsClientWithDelegate:");
    if (!factory) return;
    const SettingsClientResult client = (*factory)(*this);
    if (client && *client) home = (*client)->objectForKey("ORBCmxLastLoggedInUser");
  };
  if (platform_.withSettingsOfThisThread) {
    platform_.withSettingsOfThisThread(ask);
  } else {
    ask(platform_.settingsClientFactories);
  }
  return home;
}
