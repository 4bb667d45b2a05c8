#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// Why a service runs or not, in plain words.
struct Explanation {
  bool runs = false;
  // The service manager's word for it; see reasonOf(). Empty if it gives none.
  std::string reason;
  // A sentence that names the service and the reason.
  std::string verdict;
  // A heading and a sentence for each fact that counts. Each switch has its own line.
  std::vector<std::pair<std::string, std::string>> details;

  bool operator==(const Explanation&) const = default;
};

// Explains a service from the service manager's facts; see OperatorFacts.h. A malformed fact counts
// as absent. Pure.
Explanation explain(const platform::Value& facts);

// Every line has a line end, and fits the width; 0 for any width.
std::string asText(const Explanation& explanation, Reader reader, std::size_t width = 0);
nlohmann::ordered_json asJson(const Explanation& explanation, const platform::Value& facts);
