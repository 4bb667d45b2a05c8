#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tools/servicemanagerctl/Output.h"

// The service manager's health record, for people, for programs, and for a monitoring system.

struct HealthReport {
  struct Service {
    std::string label;
    std::string name;                         // under which the health reporter knows it
    std::optional<HealthStatus> status = {};  // nothing for one that is not supervised any more
    std::int64_t crashes = 0;                 // since the last summary
    std::optional<bool> isHealthy = {};       // as a summary would say now; nothing: it is left out

    bool operator==(const Service&) const = default;
  };

  bool isReadyToReport = false;
  std::int64_t crashLimit = 0;
  std::vector<Service> services;  // sorted by label

  bool operator==(const HealthReport&) const = default;
};

// From what the service manager tells; nothing where it keeps no record. What is malformed in it
// counts as absent.
std::optional<HealthReport> healthReport(const platform::Value& record);

// "unready", "running", "stopped", "updating".
std::string_view nameOf(HealthStatus status);

// Every line with a line end. Without a record that is said in words, in JSON by null, and to a
// monitoring system by no metric.
std::string asTable(const std::optional<HealthReport>& health, Reader reader);
nlohmann::ordered_json asJson(const std::optional<HealthReport>& health);
// In the OpenMetrics text format, version 1.0.
std::string asOpenMetrics(const std::optional<HealthReport>& health);
