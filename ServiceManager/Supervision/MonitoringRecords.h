#pragma once

#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Supervision/SharedTable.h"

// A record for each service of the catalogue. A service without a record has no mark, and can be
// given none. Belongs to the main thread.
class MonitoringRecords {
 public:
  // Replaces all records by one without marks for each of the services.
  void reset(const platform::Value& services);

  // By label; see MonitoringRecord.h.
  const platform::Dictionary& monitoredProcessesInfo() const { return *monitoredProcessesInfo_; }
  bool contains(std::string_view label) const { return monitoredProcessesInfo_->contains(label); }

  // Whether the service's process is watched; see MonitoringRecord.h.
  void trackServiceForRespawn(Label label, bool flag);
  bool isServiceBeingTrackedForRespawn(Label label) const;
  // Whether a user-interface client asked for the service to be stopped.
  void trackServiceForUserClientShutdownRequest(Label label, bool flag);
  bool isServiceBeingTrackedForUserClientShutdownRequest(Label label) const;

 private:
  bool isTracked(Label label, std::string_view mark) const;
  void track(Label label, std::string_view mark, bool flag);

  platform::Value oneOfEqual(platform::Value record);

  SharedTable<platform::Dictionary> monitoredProcessesInfo_;  // with the operator's pictures
  // Each content of a record once: thousands of services share four.
  std::vector<platform::Value> contents_;
};
