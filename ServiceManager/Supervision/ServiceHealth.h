#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"

// The daemon's record of the state of each service. Only some products have one.
//
// Reports return at once and take effect in the order of the calls.
class ServiceHealth {
 public:
  virtual ~ServiceHealth() = default;

  virtual void setMonitoredServices(const std::vector<std::string>& labels) = 0;
  // By label.
  virtual void setServiceNamesToReport(std::map<std::string, std::string> names) = 0;
  virtual void setReadyToReport(bool ready) = 0;

  virtual void stopMonitoringForService(std::string_view label) = 0;
  virtual void reportUnreadyStateForService(std::string_view label) = 0;
  virtual void reportStartForService(std::string_view label) = 0;
  virtual void reportStopForService(std::string_view label) = 0;
  virtual void reportForcedStopForService(std::string_view label) = 0;
  virtual void reportIntallerEventStartedForService(std::string_view label) = 0;  // spelled so
  virtual void reportInstallerEventFinished() = 0;

  // The labels of the services that are not ready. Waits for the reports made before.
  virtual std::set<std::string> problemServices() = 0;

  // Everything that is on record, for the operator; its keys are in HealthRecord.h. Reading it
  // changes nothing and clears no counter. Waits for the reports made before.
  virtual platform::Value healthRecord() = 0;
  // The same without waiting: calls `take` on any thread, perhaps from inside this call, in the
  // order of these calls.
  virtual void takeHealthRecord(std::move_only_function<void(platform::Value record)> take) = 0;
};
