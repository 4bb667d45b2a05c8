#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/JobTree.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

// How the service manager and its services are, for Prometheus. Unlike the health record, which
// only some products keep, it has every service of the product.
struct MetricsReport {
  struct Service {
    std::string label;
    std::optional<bool> isRunning = {};  // empty if the job host does not answer
    // Why it does not run, a word of ServiceDecision.h; empty if it runs or that is not known.
    std::string reason = {};
    std::optional<platform::JobHistory> history = {};
    std::optional<platform::JobTree> tree = {};
  };

  // The facts of a service manager that answers.
  struct Manager {
    platform::Duration answerTime{};  // from the request to the answer about all services
    std::int64_t mode = 0;            // see OperatingMode.h
    double busyFor = 0;               // seconds for which its main thread has done one thing
    std::vector<Service> services;    // sorted by label
  };

  platform::WallTime collected;
  std::optional<Manager> manager;
};

// Reads the answers about all services and their jobs (OperatorFacts.h).
MetricsReport::Manager managerIn(const platform::Value& overview, const platform::Value& jobs);

// Whether a service that does not run for this reason ought to run. Empty if that is not known.
std::optional<bool> oughtToRun(std::string_view reason);

// In Prometheus' text format, version 0.0.4, which also the textfile collector reads.
std::string asMetrics(const MetricsReport& report);
