#include <chrono>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

namespace {

constexpr Duration kInstallerEvaluationDelay = std::chrono::milliseconds(100);

Value setOfLabels(const std::set<std::string>& labels) {
  return Array(labels.begin(), labels.end());
}

}  // namespace

void ORBServiceManager::handleGlobalSettingsServerDidStart(
    const DistributedNotification& /*notification*/) {
  if (isBusAwaited_) {
    // The first evaluation will ask. Begun before it, another would make the daemon ready too
    // early.
    settings_.primaryServiceDidStart();
    return;
  }
  // A question that is under way stands for all notices that come meanwhile, but its answer may be
  // older than they are, so it is asked once more then.
  if (isAskedAboutStart_) {
    hasStartedSince_ = true;
    return;
  }
  isAskedAboutStart_ = true;
  // The client observes this notification, too, but perhaps after us. Until it knows that the
  // server is a new one, it does not call a server that hung lately.
  settings_.primaryServiceDidStart();
  askWhetherPrimaryServiceIsUp([this](std::optional<bool> isUp) {
    isAskedAboutStart_ = false;
    if (std::exchange(hasStartedSince_, false)) {
      handleGlobalSettingsServerDidStart({});
      return;
    }
    if (isUp != true) return;
    vantorlogger2_line(ASL_LEVEL_DEBUG, "Primary service did start and ready to handle requests");
    if (operatingMode_ == ORBOperatingModeInstaller) return;
    // Its settings may have changed, so everything is evaluated again, also from normal mode.
    setMode(ORBOperatingModeWaitingForPrimaryService);
    evaluateWaitingForPrimaryServiceOperatingMode();
  });
}

void ORBServiceManager::handleGlobalSettingsServerWillShutdown(
    const DistributedNotification& /*notification*/) {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Primary service is shutting down");
  setMode(ORBOperatingModeWaitingForPrimaryService);  // This ends the installer's mode, too.
}

// Does now what the watchdog would do within a quarter of an hour; in normal mode, evaluates again.
void ORBServiceManager::evaluateAgain(CompletionBlock then) {
  const bool wasNormal = operatingMode_ == ORBOperatingModeNormal;
  evaluateWaitingForPrimaryServiceOperatingMode(
      [this, wasNormal, then = std::move(then)]() mutable {
        if (wasNormal && operatingMode_ == ORBOperatingModeNormal) evaluateSystemConfiguration();
        then();
      });
}

// The primary service may have stopped, started or both, and the settings may have changed.
void ORBServiceManager::handleNotificationsReturn() {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Notifications may have been missed");
  // The clients may have missed starts of their servers, too, so they call a server again that
  // hung.
  settings_.forgetConnections();
  evaluateAgain([this] {
    if (operatingMode_ != ORBOperatingModeWaitingForPrimaryService) return;
    // A server that only hung announces no start, and the next watchdog may be a quarter of an hour
    // away.
    timers_.performAfterDelay({"ask the hung server"}, EvaluationTimers::kHungServerRetryDelay,
                              [this] {
                                if (operatingMode_ == ORBOperatingModeWaitingForPrimaryService)
                                  evaluateWaitingForPrimaryServiceOperatingMode();
                              });
  });
}

// The evaluation skips services that the user interface has stopped, also one that still runs.
void ORBServiceManager::removeStoppedServices() {
  for (const auto& [label, record] : monitoredProcessesInfo()) {
    if (!isServiceBeingTrackedForUserClientShutdownRequest(label)) continue;
    jobs_.copyJob(label, [this, label = label](const Value& copy) {
      const bool isPresent = jobStatusIn(copy).presence == JobStatus::Presence::kPresent;
      const bool isStopped = isServiceBeingTrackedForUserClientShutdownRequest(label);
      if (isPresent && isStopped) enforceShutdownForService(label);
    });
  }
}

// Nothing else repeats a request that the job host did not answer: the watchdog starts no service,
// and the retry of services that are not ready needs a health record.
//
// The primary service comes first, as at the start, and may be the one that could not be started:
// without its settings, an evaluation would stop every service that depends on them.
void ORBServiceManager::handleJobHostReturn() {
  vantorlogger2_line(ASL_LEVEL_DEBUG, "The job host answers again");
  jobs_.refreshAll();
  if (isBusAwaited_) return;  // Nothing was asked for yet, and the first evaluation will ask.
  enforcement_.jobHostHasReturned();
  extensions_.forgetLoaded();
  if (operatingMode_ != ORBOperatingModeInstaller) removeStoppedServices();
  evaluateAgain([this] {
    if (operatingMode_ != ORBOperatingModeWaitingForPrimaryService || isInstallerAtWork_) return;
    if (isServiceBeingTrackedForUserClientShutdownRequest(primaryLabel())) return;
    enforceRunningForService(primaryLabel(), nullptr);
  });
}

void ORBServiceManager::handleGlobalSettingsDidChange(const DistributedNotification& notification) {
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Notification received for global settings change: %@",
                                      notification.userInfo["KLXGlobalSettingsKeyModified"]));
  const std::string* const key = notification.userInfo["KLXGlobalSettingsKeyModified"].string();
  if (auto told = settingsEvents_.keyOfEvent(key ? *key : std::string(), platform_.runLoop.now()))
    tellOperator({.kind = OperatorEvent::Kind::kSettings, .subject = *std::move(told)});
  settings_.forgetConnections();  // A server that announces a change does not hang any more.
  // A timer that has fired counts, too: only an evaluation in normal mode makes room for another.
  if (timers_.globalSettingsDidChangeEffectTimer()) return;
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Will evaluate the system configuration in %f seconds",
                                      EvaluationTimers::kSettingsChangeDelay.count()));
  timers_.startSettingsChangeTimer([this] { evaluateSystemConfiguration(); });
}

void ORBServiceManager::globalSettingsServerDidRestart() { evaluateSystemConfigurationLater(); }

bool ORBServiceManager::evaluateServices() {
  if (healthInfo_) healthInfo_->reportInstallerEventFinished();
  // The evaluation comes later, so that the installer gets its answer at once.
  timers_.performAfterDelay({"end the installer's mode"}, kInstallerEvaluationDelay,
                            [this] { evaluateRunningModeAfterInstallerEvent(); });
  return true;
}

void ORBServiceManager::evaluateRunningModeAfterInstallerEvent() {
  setMode(ORBOperatingModeNormal);
  askWhetherPrimaryServiceIsUp([this](std::optional<bool> isUp) {
    if (isUp == true) {
      timers_.performAfterDelay({"evaluate"}, kInstallerEvaluationDelay,
                                [this] { evaluateSystemConfiguration(); });
      return;
    }
    if (isUp == false) setMode(ORBOperatingModeWaitingForPrimaryService);
    // Without an answer, the primary service may have announced its end meanwhile.
    if (operatingMode_ == ORBOperatingModeWaitingForPrimaryService)
      enforceRunningForService(primaryLabel(), nullptr);
  });
}

void ORBServiceManager::scheduleReevaluation() {
  if (timers_.reevaluationTimer()) return;
  const MainThreadWork::Scope scope(*mainThreadWork_, kWorkReadsHealth, "");
  if (!healthInfo_ || healthInfo_->problemServices().empty()) return;
  timers_.startReevaluationTimer([this] { reevaluateConfiguration(timers_.reevaluationTimer()); });
}

// A service that is being started reports by itself if it does not become ready.
void ORBServiceManager::noticeUnreadyServices() {
  if (timers_.reevaluationTimer() || !healthInfo_) return;
  const MainThreadWork::Scope scope(*mainThreadWork_, kWorkReadsHealth, "");
  for (const std::string& label : healthInfo_->problemServices()) {
    if (enforcement_.activityOf(label) == ServiceActivity::kNothing) return scheduleReevaluation();
  }
}

void ORBServiceManager::reevaluateConfiguration(const RunLoopHandle* /*timer*/) {
  timers_.cancelReevaluationTimer();
  const MainThreadWork::Scope scope(*mainThreadWork_, kWorkReadsHealth, "");
  const std::set<std::string> labels =
      healthInfo_ ? healthInfo_->problemServices() : std::set<std::string>();
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Reevaluating configuration for service(s): %@",
                                      healthInfo_ ? setOfLabels(labels) : Value()));
  // When all have had their turn, the next retry is scheduled.
  for (const std::string& label : labels) {
    if (label != primaryLabel() && areFeaturesMalformed(catalogue_, label)) continue;
    turns_.add({"retry", label}, [this, label] { enforceRunningForService(label, nullptr); });
  }
}

void ORBServiceManager::handleServiceDidStartNotification(
    const DistributedNotification& notification) {
  if (const auto label = catalogue_.labelForNotification(notification.name)) {
    evaluateInformationForService(*label);
  }
}
