#include "ServiceManager/Supervision/MonitoringRecords.h"

#include <algorithm>
#include <utility>

#include "ServiceManager/Supervision/MonitoringRecord.h"

using namespace platform;

void MonitoringRecords::reset(const Value& services) {
  Dictionary& records = monitoredProcessesInfo_.change();
  records = {};
  contents_.clear();
  if (!services.dictionary()) return;
  const Value initial = oneOfEqual(initialMonitoringRecord());
  for (const auto& [label, entry] : *services.dictionary()) records.set(label, initial);
}

Value MonitoringRecords::oneOfEqual(Value record) {
  const auto known = std::ranges::find(contents_, record);
  if (known != contents_.end()) return *known;
  contents_.push_back(record);
  return record;
}

bool MonitoringRecords::isTracked(Label label, std::string_view mark) const {
  return label && (*monitoredProcessesInfo_)[*label][mark].boolean() == true;
}

void MonitoringRecords::track(Label label, std::string_view mark, bool flag) {
  if (!label || !contains(*label)) return;
  const Value& record = (*monitoredProcessesInfo_)[*label];
  Value changed = oneOfEqual(monitoringRecordBySetting(record, mark, flag));
  if (changed != record) monitoredProcessesInfo_.change().set(*label, std::move(changed));
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
