#include "Tools/servicemanagerctl/SupportBundle.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include <fmt/format.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

constexpr std::string_view kFolder = "vantor-support/";
constexpr std::string_view kListName = "CONTENTS.txt";
constexpr char kLeftOut[] = "(left out)";

constexpr std::string_view kIntroduction =
    "Made by servicemanagerctl support-bundle. The values of settings, the environment of jobs, "
    "what services\nprint and log, keys and secrets are left out.\n\n";

}  // namespace

void leaveOutLargeParts(std::vector<SupportPart>& parts) {
  for (SupportPart& part : parts) {
    if (part.content.size() <= kMaxSupportPart) continue;
    part.whyMissing = fmt::format("it has {} bytes", part.content.size());
    part.content.clear();
  }
}

std::vector<TarEntry> entriesOf(const std::vector<SupportPart>& parts) {
  std::vector<TarEntry> entries{
      {fmt::format("{}{}", kFolder, kListName), std::string(kIntroduction) + listOf(parts)}};
  for (const SupportPart& part : parts) {
    if (!part.whyMissing)
      entries.push_back({fmt::format("{}{}", kFolder, part.name), part.content});
  }
  return entries;
}

std::string listOf(const std::vector<SupportPart>& parts) {
  std::size_t width = 0;
  for (const SupportPart& part : parts) width = std::max(width, part.name.size());
  std::string text;
  for (const SupportPart& part : parts) {
    const auto out = std::back_inserter(text);
    if (part.whyMissing) {
      fmt::format_to(out, "{:<{}}   missing  {}: {}\n", part.name, width, part.what,
                     plain(*part.whyMissing));
    } else {
      fmt::format_to(out, "{:<{}}  {:>8}  {}\n", part.name, width, part.content.size(), part.what);
    }
  }
  return text;
}

nlohmann::ordered_json asJson(const std::vector<SupportPart>& parts, std::string_view file) {
  nlohmann::ordered_json json{{"version", kSupportBundleVersion}, {"file", file}};
  json["parts"] = nlohmann::ordered_json::array();
  for (const SupportPart& part : parts) {
    nlohmann::ordered_json row{{"name", part.name}, {"what", part.what}};
    row["bytes"] =
        part.whyMissing ? nlohmann::ordered_json() : nlohmann::ordered_json(part.content.size());
    row["missing"] =
        part.whyMissing ? nlohmann::ordered_json(*part.whyMissing) : nlohmann::ordered_json();
    json["parts"].push_back(std::move(row));
  }
  return json;
}

Value withoutSettings(const Value& facts) {
  const Array* switches = facts[kFactSwitches].array();
  if (!switches) return facts;
  Array rows;
  for (const Value& row : *switches) {
    if (!row.dictionary() || row[kFactCurrent].isNil()) {
      rows.push_back(row);
      continue;
    }
    Dictionary without = *row.dictionary();
    without.set(kFactCurrent, kLeftOut);
    rows.push_back(std::move(without));
  }
  Dictionary all = *facts.dictionary();
  all.set(kFactSwitches, std::move(rows));
  return all;
}

std::string withoutSecrets(std::string line) {
  constexpr std::string_view kValue = "return switchkey value \"";
  constexpr std::string_view kBehindValue = "\" of type \"";
  if (const std::size_t value = line.find(kValue); value != std::string::npos) {
    const std::size_t begin = value + kValue.size();
    const std::size_t behind = line.rfind(kBehindValue);
    const std::size_t end = behind == std::string::npos || behind < begin ? line.size() : behind;
    line.replace(begin, end - begin, kLeftOut);
  }
  constexpr std::string_view kEnvironment = "EnvironmentVariables";
  if (const std::size_t environment = line.find(kEnvironment); environment != std::string::npos) {
    line.resize(environment + kEnvironment.size());
    line += std::string(" ") + kLeftOut;
  }
  return line;
}
