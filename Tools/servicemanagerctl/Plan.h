#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"

// The services that would run with a catalogue and settings, decided by the functions with which
// the service manager decides. Programs, extensions and the primary service count as sound. Pure.

struct PlannedSwitch {
  std::string feature;
  std::optional<std::string> source;  // the prefix of its settings server
  std::string key;
  platform::Value expected;
  platform::Value current;  // nil if there is no such setting
  SwitchOutcome outcome = SwitchOutcome::kAbsent;
};

struct PlannedService {
  std::string label;
  std::string_view type;
  platform::Value minimumOSVersion;
  bool runs = false;
  std::string_view reason;  // see reasonOf()
  std::vector<PlannedSwitch> switches;
};

// The services of the catalogue by their labels. `settings`: a dictionary of the settings of each
// domain, by its name in a catalogue.
std::vector<PlannedService> makePlan(const ServiceCatalogue& catalogue,
                                     const platform::Value& settings,
                                     std::int64_t kernelMajorNumber);
