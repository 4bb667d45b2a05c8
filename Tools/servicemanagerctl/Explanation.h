#pragma once

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
  // What each of the things that count says: a heading and a sentence. A switch has a line each.
  std::vector<std::pair<std::string, std::string>> details;

  bool operator==(const Explanation&) const = default;
};

// From what the service manager tells of a service; see OperatorFacts.h. What is malformed in it
// counts as absent. Pure.
Explanation explain(const platform::Value& facts);

// Every line with a line end.
std::string asText(const Explanation& explanation, Reader reader);
nlohmann::ordered_json asJson(const Explanation& explanation, const platform::Value& facts);
