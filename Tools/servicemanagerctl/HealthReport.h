#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tools/servicemanagerctl/Output.h"

// The service manager's health record, for people, for programs, and for a monitoring system.

struct HealthReport {
  struct Service {
    std::string label;
    std::string name;                         // in the health record
    std::optional<HealthStatus> status = {};  // none for a service that is not supervised any more
    std::int64_t crashes = 0;                 // since the last summary
    // As a summary would say now; none if a summary would omit it
    std::optional<bool> isHealthy = {};
    // The job host's counts, which outlive the service manager; none if it has no job.
    std::optional<platform::JobHistory> history = {};

    bool operator==(const Service&) const = default;
  };

  bool isReadyToReport = false;
  std::int64_t crashLimit = 0;
  std::vector<Service> services;  // sorted by label

  bool operator==(const HealthReport&) const = default;
};

// Reads the service manager's answer; nothing if it keeps no record. A malformed entry counts as
// absent. `jobs` are the facts of the services' jobs by label (OperatorFacts.h), or nil.
std::optional<HealthReport> healthReport(const platform::Value& record,
                                         const platform::Value& jobs = {});

// "unready", "running", "stopped", "updating".
std::string_view nameOf(HealthStatus status);

// Every line has a line end. A missing record is a sentence in the table, null in JSON, and no
// metric in OpenMetrics.
std::string asTable(const std::optional<HealthReport>& health, Reader reader);
nlohmann::ordered_json asJson(const std::optional<HealthReport>& health);
// In the OpenMetrics text format, version 1.0.
std::string asOpenMetrics(const std::optional<HealthReport>& health);
