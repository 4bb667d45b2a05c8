#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Tools/servicemanagerctl/DoctorFacts.h"
#include "Tools/servicemanagerctl/Output.h"

// The judgement of "servicemanagerctl doctor" about the facts. Pure.

struct Finding {
  enum class Severity { kOk, kNote, kWarning, kError };
  std::string code;  // stable, for programs: a part and a fault, as in "daemon-hung"
  Severity severity = Severity::kOk;
  std::string text;         // one sentence
  std::string advice = {};  // the next step; empty if there is none

  bool operator==(const Finding&) const = default;
};

// "ok", "note", "warning", "error".
std::string_view nameOf(Finding::Severity severity);

// In the order in which the parts depend on each other: the first error may explain the others.
std::vector<Finding> doctorFindings(const DoctorFacts& facts);

// The version of the JSON. It grows only if a reader of an earlier one would misunderstand it.
inline constexpr int kDoctorVersion = 1;

// Every line has a line end.
std::string asText(const std::vector<Finding>& findings, Reader reader);
nlohmann::ordered_json asJson(const std::vector<Finding>& findings);

// By the worst finding: 0 for notes, kExitWarnings, or 1 for an error.
int exitStatusOf(const std::vector<Finding>& findings);
