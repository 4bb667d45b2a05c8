#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/SystemFacts/SystemInformation.h"

// The platform layer's facts about this machine, for people and for programs.
struct PlatformReport {
  struct User {
    platform::UserId uid;
    platform::UserIdentity identity;
  };
  struct Process {
    platform::ProcessId pid;
    platform::KernelProcess record;
    std::optional<std::string> path;
  };

  platform::PlatformConfiguration configuration;
  std::string kernelRelease;
  std::string systemVersion;     // three numbers
  std::string marketingVersion;  // 10.MINOR
  double bootTime = -1;          // seconds since 1970, -1 if it can't be read
  // Where control groups for jobs can be, or why there are none.
  std::expected<std::string, std::string> controlGroups;
  std::vector<User> users;         // root and the caller
  std::vector<Process> processes;  // this one and its ancestors, the youngest first
};

// Reads all facts but the control groups. `self` is the process whose ancestors are listed,
// `caller` the user who asks.
PlatformReport makePlatformReport(const platform::SystemInformation& system,
                                  const platform::PlatformConfiguration& configuration,
                                  platform::ProcessId self, platform::UserId caller);

std::string asTable(const PlatformReport& report);
nlohmann::ordered_json asJson(const PlatformReport& report);
