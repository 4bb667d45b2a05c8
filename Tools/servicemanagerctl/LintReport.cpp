#include "Tools/servicemanagerctl/LintReport.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "Tools/servicemanagerctl/Output.h"

namespace lint {
namespace {

using Json = nlohmann::ordered_json;

std::size_t count(const std::vector<FileReport>& reports, Severity severity) {
  std::size_t number = 0;
  for (const FileReport& report : reports) {
    number += static_cast<std::size_t>(std::ranges::count(
        report.findings, severity, [](const Finding& finding) { return finding.code->severity; }));
  }
  return number;
}

std::string counted(std::size_t number, std::string_view what) {
  return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

Json findingJson(const Finding& finding) {
  Json json{{"file", finding.file}, {"line", nullptr}, {"column", nullptr}};
  if (finding.position) {
    json["line"] = finding.position->line;
    json["column"] = finding.position->column;
  }
  json["path"] = finding.path;
  json["severity"] = nameOf(finding.code->severity);
  json["code"] = finding.code->code;
  json["message"] = finding.message;
  return json;
}

// A path as a relative or "file" URI.
std::string uriOf(std::string_view path) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._~-";
  std::string uri = path.starts_with('/') ? "file://" : "";
  for (const char character : path) {
    if (kPlain.find(character) != kPlain.npos) {
      uri += character;
    } else {
      fmt::format_to(std::back_inserter(uri), "%{:02X}", static_cast<unsigned char>(character));
    }
  }
  return uri;
}

Json sarifResult(const Finding& finding) {
  Json place{{"artifactLocation", {{"uri", uriOf(finding.file)}}}};
  if (finding.position) {
    place["region"] = {{"startLine", finding.position->line},
                       {"startColumn", finding.position->column}};
  }
  Json location{{"physicalLocation", std::move(place)}};
  if (!finding.path.empty()) {
    location["logicalLocations"] =
        Json::array({{{"fullyQualifiedName", finding.path}, {"kind", "member"}}});
  }
  return {{"ruleId", finding.code->code},
          {"level", nameOf(finding.code->severity)},
          {"message", {{"text", finding.message}}},
          {"locations", Json::array({std::move(location)})}};
}

}  // namespace

bool pass(const std::vector<FileReport>& reports, bool isStrict) {
  return count(reports, Severity::kError) == 0 &&
         (!isStrict || count(reports, Severity::kWarning) == 0);
}

std::string asText(const std::vector<FileReport>& reports) {
  std::string text;
  const auto out = std::back_inserter(text);
  for (const FileReport& report : reports) {
    for (const Finding& finding : report.findings) {
      fmt::format_to(out, "{}:", escaped(finding.file));
      if (finding.position) {
        fmt::format_to(out, "{}:{}:", finding.position->line, finding.position->column);
      }
      fmt::format_to(out, " {} {}: ", nameOf(finding.code->severity), finding.code->code);
      if (!finding.position && !finding.path.empty()) {
        fmt::format_to(out, "{}: ", escaped(finding.path));
      }
      text += escaped(finding.message);
      text += '\n';
    }
  }
  return text;
}

std::string summary(const std::vector<FileReport>& reports) {
  return fmt::format("{}: {}, {}, {}", counted(reports.size(), "file"),
                     counted(count(reports, Severity::kError), "error"),
                     counted(count(reports, Severity::kWarning), "warning"),
                     counted(count(reports, Severity::kNote), "note"));
}

Json asJson(const std::vector<FileReport>& reports) {
  Json files = Json::array();
  Json findings = Json::array();
  for (const FileReport& report : reports) {
    Json file{{"file", report.file}, {"kind", nullptr}};
    if (report.kind) file["kind"] = nameOf(*report.kind);
    files.push_back(std::move(file));
    for (const Finding& finding : report.findings) findings.push_back(findingJson(finding));
  }
  return {{"version", 1},
          {"files", std::move(files)},
          {"findings", std::move(findings)},
          {"errors", count(reports, Severity::kError)},
          {"warnings", count(reports, Severity::kWarning)},
          {"notes", count(reports, Severity::kNote)}};
}

Json asSarif(const std::vector<FileReport>& reports) {
  Json rules = Json::array();
  for (const FindingCode& code : findingCodes()) {
    rules.push_back({{"id", code.code},
                     {"shortDescription", {{"text", code.title}}},
                     {"fullDescription", {{"text", code.explanation}}},
                     {"defaultConfiguration", {{"level", nameOf(code.severity)}}}});
  }
  Json results = Json::array();
  for (const FileReport& report : reports) {
    for (const Finding& finding : report.findings) results.push_back(sarifResult(finding));
  }
  const Json driver{{"name", "servicemanagerctl lint"}, {"rules", std::move(rules)}};
  const Json run{{"tool", {{"driver", driver}}},
                 {"columnKind", "unicodeCodePoints"},
                 {"results", std::move(results)}};
  return {{"$schema", "https://json.schemastore.org/sarif-2.1.0.json"},
          {"version", "2.1.0"},
          {"runs", Json::array({run})}};
}

}  // namespace lint
