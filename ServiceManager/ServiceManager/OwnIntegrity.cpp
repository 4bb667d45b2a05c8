#include "ServiceManager/ServiceManager/OwnIntegrity.h"

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Supervision/ProgramRechecks.h"

using namespace platform;

void OwnIntegrity::check() {
  const auto verdict = environment_.validator.validateBundle(environment_.bundlePath);
  if (verdict.isIntact()) return environment_.onIntact();
  if (verdict.isUnknown()) return checkAgainLater(verdict.reason);
  vantorlogger2_line(
      ASL_LEVEL_ERR,
      "Internal inconsistency! The service manager bundle appears to have been tampered with\n "
      "Service Manager is going into limbo",
      {.messageId = kDaemonIdleId});
  environment_.announceError("Internal inconsistency",
                             "The service manager bundle appears to have been tampered with");
}

void OwnIntegrity::checkAgainLater(const std::string& reason) {
  const Instant now = environment_.runLoop.now();
  if (!first_) first_ = now;
  if (!isIdle_ && now - *first_ >= kMostTime) {
    isIdle_ = true;
    vantorlogger2_line(
        ASL_LEVEL_ERR,
        stringWithFormat("The service manager bundle can't be checked: %@\n Service Manager is "
                         "going into limbo until it can",
                         reason),
        {.messageId = kDaemonIdleId});
    environment_.announceError("Internal inconsistency",
                               "The service manager bundle can't be checked");
  }
  pause_ = nextRecheckPause(pause_);
  environment_.timers.performAfterDelay({"check own bundle"}, pause_, [this] { check(); });
}
