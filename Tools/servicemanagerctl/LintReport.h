#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Tools/lint/FileLint.h"

namespace lint {

// Whether the files pass: no error, and if `isStrict`, no warning either.
bool pass(const std::vector<FileReport>& reports, bool isStrict);

// A line "FILE:LINE:COLUMN: SEVERITY CODE: sentence" for each finding, with its line end. In a
// binary list the place is the path of the value: "FILE: SEVERITY CODE: PATH: sentence".
// Nothing in it can steer a terminal.
std::string asText(const std::vector<FileReport>& reports);

// "3 files: 1 error, 2 warnings, 0 notes".
std::string summary(const std::vector<FileReport>& reports);

nlohmann::ordered_json asJson(const std::vector<FileReport>& reports);

// For code hosts and editors: the Static Analysis Results Interchange Format, version 2.1.0.
nlohmann::ordered_json asSarif(const std::vector<FileReport>& reports);

}  // namespace lint
