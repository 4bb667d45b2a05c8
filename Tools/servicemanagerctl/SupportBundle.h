#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/TarArchive.h"

// The content of "servicemanagerctl support-bundle". Pure.

struct SupportPart {
  std::string name;  // of the file in the bundle
  std::string what;  // a few words on what it holds
  std::string content = {};
  std::optional<std::string> whyMissing = {};
};

// A part that is larger is left out.
inline constexpr std::size_t kMaxSupportPart = std::size_t{16} * 1024 * 1024;

// The version of the JSON. It grows only if a reader of an earlier one would misunderstand it.
inline constexpr int kSupportBundleVersion = 1;

// Replaces parts that are too large by the reason why they are missing.
void leaveOutLargeParts(std::vector<SupportPart>& parts);

// The files of the bundle in its folder, the list of them first.
std::vector<TarEntry> entriesOf(const std::vector<SupportPart>& parts);

// Every line has a line end.
std::string listOf(const std::vector<SupportPart>& parts);
nlohmann::ordered_json asJson(const std::vector<SupportPart>& parts, std::string_view file);

// The facts of a service without the values of settings (OperatorFacts.h).
platform::Value withoutSettings(const platform::Value& facts);

// A line of the log without the values of settings and the environment of jobs.
std::string withoutSecrets(std::string line);
