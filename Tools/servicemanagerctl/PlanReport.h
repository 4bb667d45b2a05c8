#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/Plan.h"

// A plan for people and for programs.

// Why the service would run or not, in a few words.
std::string whyPlanned(const PlannedService& service);

// Every line has a line end.
std::string asTable(const std::vector<PlannedService>& plan, Reader reader);
nlohmann::ordered_json asJson(const std::vector<PlannedService>& plan, std::string_view product,
                              std::int64_t kernelMajorNumber);

// A change that the plan would make.
struct PlanChange {
  enum class Kind { kStarts, kStops };
  Kind kind = Kind::kStarts;
  std::string label;
  std::string why;

  bool operator==(const PlanChange&) const = default;
};

// `running` tells of each service that there is now whether it runs. By label.
std::vector<PlanChange> changesOf(const std::vector<PlannedService>& plan,
                                  const std::map<std::string, bool>& running);

// A line "+ LABEL: why" or "- LABEL: why" for each change, or a sentence if there is none.
std::string asText(const std::vector<PlanChange>& changes, Reader reader);
nlohmann::ordered_json asJson(const std::vector<PlanChange>& changes);
