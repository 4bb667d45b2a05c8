#include <limits>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

void ORBExitNoteKQueueCallBack(const ExitNoteContext& info, ProcessId process) {
  info.object->processOfServiceEnded(info.jobIdentifier, process);
}

// Only notes what has happened; the evaluation decides in a turn of its own, so that exits can't
// keep others from theirs. Others rely on the order: the health record counts a crash before the
// evaluation may report a start, and the clients are notified of the end before the start.
void ORBServiceManager::processOfServiceEnded(const std::string& label, ProcessId process) {
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("%@ with PID [%d] was terminated", label, process));
  vantorlogger2_line(ASL_LEVEL_DEBUG, "Handling Process terminiation callback");
  if (healthInfo_) healthInfo_->reportForcedStopForService(label);
  // The job itself stays with the job host, which starts it again.
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Removing job: %@", label));
  notifyClientsOfService(label, UserInterfaceClients::kJobHasEnded,
                         std::numeric_limits<std::int64_t>::min());
  trackServiceForRespawn(label, false);
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Respawning job: %@", label));
  jobs_.processEnded(label, process);
  evaluateSystemConfigurationLater();
  operatorPublisher_.changed();
}
