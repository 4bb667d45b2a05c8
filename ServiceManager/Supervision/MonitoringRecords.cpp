#include "ServiceManager/Supervision/MonitoringRecords.h"

#include "ServiceManager/Supervision/MonitoringRecord.h"

using namespace platform;

void MonitoringRecords::reset(const Value& services) {
  monitoredProcessesInfo_ = {};
  if (!services.dictionary()) return;
  for (const auto& [label, entry] : *services.dictionary()) {
    monitoredProcessesInfo_.set(label, initialMonitoringRecord());
  }
}

bool MonitoringRecords::isTracked(Label label, std::string_view mark) const {
  return label && monitoredProcessesInfo_[*label][mark].boolean() == true;
}

void MonitoringRecords::track(Label label, std::string_view mark, bool flag) {
  if (!label || !contains(*label)) return;
  monitoredProcessesInfo_.set(
      *label, monitoringRecordBySetting(monitoredProcessesInfo_[*label], mark, flag));
}

void MonitoringRecords::trackServiceForRespawn(Label label, bool flag) {
  track(label, kMonitoringRecordMonitored, flag);
}

bool MonitoringRecords::isServiceBeingTrackedForRespawn(Label label) const {
  return isTracked(label, kMonitoringRecordMonitored);
}

void MonitoringRecords::trackServiceForUserClientShutdownRequest(Label label, bool flag) {
  track(label, kORBUserClientDidRequestShutdown, flag);
}

bool MonitoringRecords::isServiceBeingTrackedForUserClientShutdownRequest(Label label) const {
  return isTracked(label, kORBUserClientDidRequestShutdown);
}
