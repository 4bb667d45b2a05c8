#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "ServiceManager/Supervision/ServiceHealth.h"

// A health record that notes what is reported, as "report LABEL", and holds the states that follow.
class FakeServiceHealth final : public ServiceHealth {
 public:
  // `reports` outlives this.
  explicit FakeServiceHealth(std::vector<std::string>& reports) : reports_(reports) {}

  void setMonitoredServices(const std::vector<std::string>& labels) override {
    for (const auto& label : labels) report("monitored", label, HealthStatus::kUnready);
  }
  void setServiceNamesToReport(std::map<std::string, std::string> names) override {
    for (const auto& [label, name] : names) note("name " + name, label);
  }
  void setReadyToReport(bool ready) override { reports_.push_back(ready ? "ready" : "not ready"); }
  void stopMonitoringForService(std::string_view label) override {
    note("stop monitoring", label);
    statuses_.erase(std::string(label));
  }
  void reportUnreadyStateForService(std::string_view label) override {
    report("unready", label, HealthStatus::kUnready);
  }
  void reportStartForService(std::string_view label) override {
    report("start", label, HealthStatus::kRunning);
  }
  void reportStopForService(std::string_view label) override {
    report("stop", label, HealthStatus::kStopped);
  }
  void reportForcedStopForService(std::string_view label) override {
    note("forced stop", label);
    const auto known = statuses_.find(std::string(label));
    const bool wasToldToEnd =
        known != statuses_.end() &&
        (known->second == HealthStatus::kStopped || known->second == HealthStatus::kUpdating);
    if (!wasToldToEnd) statuses_[std::string(label)] = HealthStatus::kUnready;
  }
  void reportIntallerEventStartedForService(std::string_view label) override {
    report("installer event", label, HealthStatus::kUpdating);
  }
  void reportInstallerEventFinished() override {
    reports_.push_back("installer event finished");
    for (auto& [label, status] : statuses_) {
      if (status == HealthStatus::kUpdating) status = HealthStatus::kRunning;
    }
  }

  std::set<std::string> problemServices() override {
    std::set<std::string> problems;
    for (const auto& [label, status] : statuses_) {
      if (status == HealthStatus::kUnready) problems.insert(label);
    }
    return problems;
  }
  platform::Value healthRecord() override { return platform::Dictionary(); }
  void takeHealthRecord(std::move_only_function<void(platform::Value record)> take) override {
    take(healthRecord());
  }

 private:
  void note(const std::string& what, std::string_view label) {
    reports_.push_back(what + " " + std::string(label));
  }
  void report(const std::string& what, std::string_view label, HealthStatus status) {
    note(what, label);
    statuses_[std::string(label)] = status;
  }

  std::vector<std::string>& reports_;
  std::map<std::string, HealthStatus> statuses_;
};
