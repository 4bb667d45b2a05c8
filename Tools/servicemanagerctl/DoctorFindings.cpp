#include "Tools/servicemanagerctl/DoctorFindings.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include <fmt/format.h>

#include "Tools/servicemanagerctl/DoctorParts.h"
#include "Tools/servicemanagerctl/ExitStatus.h"

using Severity = Finding::Severity;

namespace {

void judgeConfiguration(Findings& findings, const DoctorFacts& facts) {
  const std::string file =
      platform::pathBelowRoot(facts.configuration.root, "etc/vantor/platform.plist");
  for (const std::string& warning : facts.configuration.warnings)
    findings.push_back({"configuration-mistake", Severity::kWarning, warning + ".",
                        "Correct " + file + "; vantor-platform(5) has its keys."});
  if (facts.configuration.warnings.empty())
    findings.push_back({"configuration", Severity::kOk,
                        fmt::format("The configuration of the platform root {} is valid.",
                                    facts.configuration.root)});
}

void judgeInstallation(Findings& findings, const DoctorFacts& facts) {
  if (!facts.installed)
    return addUnknown(findings, "installation", facts.installed.error(), "what is installed");
  bool isComplete = true;
  for (const InstalledFile& file : *facts.installed) {
    if (file.exists) continue;
    isComplete = false;
    findings.push_back({"installation-incomplete", Severity::kError,
                        fmt::format("{} is missing: {}.", file.path, file.use),
                        "Install the package or the product that has this file."});
  }
  if (isComplete)
    findings.push_back({"installation", Severity::kOk,
                        "The job host, the service manager and the catalogue are installed."});
}

std::string severityWord(Severity severity, Reader reader) {
  const std::string padded = fmt::format("{:<7}", nameOf(severity));
  if (severity == Severity::kOk) return coloured(padded, Colour::kGreen, reader);
  if (severity == Severity::kNote) return padded;
  return coloured(padded, Colour::kRed, reader);
}

Severity worstOf(const std::vector<Finding>& findings) {
  Severity worst = Severity::kOk;
  for (const Finding& finding : findings) worst = std::max(worst, finding.severity);
  return worst;
}

}  // namespace

std::string_view nameOf(Severity severity) {
  switch (severity) {
    case Severity::kOk:
      return "ok";
    case Severity::kNote:
      return "note";
    case Severity::kWarning:
      return "warning";
    case Severity::kError:
      return "error";
  }
  return "";
}

void addUnknown(Findings& findings, const std::string& part, const NotKnown& unknown,
                const std::string& what) {
  const std::string reason = unknown.text.empty() ? std::string() : ": " + unknown.text;
  switch (unknown.why) {
    case NotKnown::Why::kNotPermitted:
      return findings.push_back({part + "-not-permitted", Severity::kNote,
                                 fmt::format("This user may not see {}{}.", what, reason),
                                 "Run \"servicemanagerctl doctor\" as root."});
    case NotKnown::Why::kTimedOut:
      return findings.push_back(
          {part + "-timed-out", Severity::kError,
           fmt::format("The time to look at {} was not enough{}.", what, reason),
           "Look for a disk or a network file system that hangs."});
    case NotKnown::Why::kFailed:
      return findings.push_back({part + "-unknown", Severity::kNote,
                                 fmt::format("Nothing is known about {}{}.", what, reason)});
  }
}

std::vector<Finding> doctorFindings(const DoctorFacts& facts) {
  Findings findings;
  if (facts.platformFault) {
    findings.push_back({"platform-unusable", Severity::kError, *facts.platformFault + ".",
                        "No program of the product starts before this is repaired."});
    return findings;
  }
  judgeConfiguration(findings, facts);
  judgeInstallation(findings, facts);
  judgeKernel(findings, facts);
  judgeClock(findings, facts);
  judgeAnchors(findings, facts);
  judgeDisks(findings, facts);
  judgeGroup(findings, facts);
  judgeServers(findings, facts);
  judgeLimits(findings, facts);
  judgeSockets(findings, facts);
  return findings;
}

std::string asText(const std::vector<Finding>& findings, Reader reader) {
  std::string text;
  const auto out = std::back_inserter(text);
  for (const Finding& finding : findings) {
    fmt::format_to(out, "{}  {:<26}  {}\n", severityWord(finding.severity, reader), finding.code,
                   escaped(finding.text));
    if (!finding.advice.empty()) fmt::format_to(out, "{:37}{}\n", "", escaped(finding.advice));
  }
  const auto count = [&](Severity severity) {
    return std::ranges::count(findings, severity, &Finding::severity);
  };
  fmt::format_to(out, "{} errors, {} warnings, {} notes.\n", count(Severity::kError),
                 count(Severity::kWarning), count(Severity::kNote));
  return text;
}

nlohmann::ordered_json asJson(const std::vector<Finding>& findings) {
  auto list = nlohmann::ordered_json::array();
  for (const Finding& finding : findings) {
    nlohmann::ordered_json json{
        {"code", finding.code}, {"severity", nameOf(finding.severity)}, {"text", finding.text}};
    json["advice"] =
        finding.advice.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(finding.advice);
    list.push_back(std::move(json));
  }
  return {{"version", kDoctorVersion},
          {"worst", nameOf(worstOf(findings))},
          {"findings", std::move(list)}};
}

int exitStatusOf(const std::vector<Finding>& findings) {
  switch (worstOf(findings)) {
    case Severity::kOk:
    case Severity::kNote:
      return EXIT_SUCCESS;
    case Severity::kWarning:
      return kExitWarnings;
    case Severity::kError:
      return kExitFailed;
  }
  return kExitFailed;
}
