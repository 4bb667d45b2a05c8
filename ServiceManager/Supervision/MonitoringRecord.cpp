#include "ServiceManager/Supervision/MonitoringRecord.h"

using namespace platform;

Value initialMonitoringRecord() {
  constexpr int kNoProcess = -1000;
  return Dictionary{{std::string(kMonitoringRecordMonitored), false},
                    {std::string(kMonitoringRecordPid), kNoProcess},
                    {std::string(kORBUserClientDidRequestShutdown), false}};
}

Value monitoringRecordBySetting(const Value& record, std::string_view mark, bool value) {
  Dictionary changed = record.dictionary() ? *record.dictionary() : Dictionary();
  changed.set(mark, value);
  return changed;
}
