#include <source_location>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

namespace {

void logStoppedByUserInterface(
    const std::string& label, const std::source_location& where = std::source_location::current()) {
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      stringWithFormat(
          "%@ is not actively being monitored as per the request of the user interface", label),
      where);
}

}  // namespace

void ORBServiceManager::setMode(std::int64_t mode) {
  if (std::exchange(operatingMode_, mode) != mode)
    tellOperator({.kind = OperatorEvent::Kind::kMode, .number = mode});
  // An installer that died does not end its work.
  if (mode == ORBOperatingModeNormal && std::exchange(isInstallerAtWork_, false))
    tellOperator({.kind = OperatorEvent::Kind::kInstaller, .number = 0});
  ++modeChanges_;
  operatorPublisher_.changed();
}

// An event that changes the mode asks by itself, or waits for another one.
void ORBServiceManager::askWhetherPrimaryServiceIsUp(
    std::move_only_function<void(std::optional<bool>)> answer) {
  settings_.isPrimaryServiceUp(
      [this, changes = modeChanges_, answer = std::move(answer)](bool isUp) mutable {
        answer(changes == modeChanges_ ? std::optional(isUp) : std::nullopt);
      });
}

void ORBServiceManager::evaluateWaitingForPrimaryServiceOperatingMode(CompletionBlock then) {
  if (operatingMode_ == ORBOperatingModeInstaller) {
    if (then) then();
    return;
  }
  askWhetherPrimaryServiceIsUp([this, then = std::move(then)](std::optional<bool> isUp) mutable {
    if (isUp == false && operatingMode_ == ORBOperatingModeNormal) {
      // The job host starts it again, not the watchdog.
      setMode(ORBOperatingModeWaitingForPrimaryService);
    } else if (isUp == true && operatingMode_ == ORBOperatingModeWaitingForPrimaryService) {
      setMode(ORBOperatingModeNormal);
      evaluateSystemConfiguration();
    }
    if (then) then();
  });
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
  if (waitForPrimary_.expired()) scheduleReevaluation();  // The primary service has no job.
}

// When all have had their turn, services that are not ready are noticed, and later each that can't
// be started.
void ORBServiceManager::evaluateOtherServices(const ServiceCatalogue& catalogue,
                                              const std::string& primary) {
  const Dictionary* services = catalogue.services().dictionary();
  if (!services) return;
  takeOver_.noteEvaluation();
  for (const auto& [label, entry] : *services) {
    if (label == primary) continue;
    evaluateInTurn(label);
  }
}

void ORBServiceManager::evaluateInTurn(const std::string& label) {
  turns_.add({"evaluate", label}, [this, label] { evaluateInformationForService(label); });
}

void ORBServiceManager::evaluateSystemConfigurationLater() {
  turns_.add({"evaluate"}, [this] { evaluateSystemConfiguration(); });
}

EvaluationPermission ORBServiceManager::permissionToEvaluate(const std::string& label) const {
  return evaluationPermission(operatingMode_,
                              isServiceBeingTrackedForUserClientShutdownRequest(label));
}

// The primary service is awaited in a mode that evaluates nothing.
void ORBServiceManager::checkProgramAgain(const std::string& label) {
  const bool isAwaited = operatingMode_ == ORBOperatingModeWaitingForPrimaryService &&
                         label == primaryLabel() &&
                         !isServiceBeingTrackedForUserClientShutdownRequest(label);
  if (isAwaited) {
    enforceRunningForService(label, nullptr);
  } else {
    evaluateInformationForService(label);
  }
}

void ORBServiceManager::evaluateInformationForService(const std::string& label) {
  const MainThreadWork::Scope scope(*mainThreadWork_, kWorkEvaluates, label);
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
    features_.evaluate(label);
  }
}
