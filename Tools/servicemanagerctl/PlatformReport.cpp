#include "Tools/servicemanagerctl/PlatformReport.h"

#include <iterator>

#include <fmt/format.h>

#include "Libraries/Static/Interprocess Communications/utilities/BootTime.h"
#include "Platform/Texts/Description.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"
#include "Tools/servicemanagerctl/Output.h"

namespace {

using namespace platform;

// More ancestors than any process has. The process table changes while it is read, which could
// otherwise lead to an endless circle.
constexpr std::size_t kMaximumAncestors = 64;

std::vector<PlatformReport::Process> lineage(const SystemInformation& system, ProcessId youngest) {
  std::vector<PlatformReport::Process> processes;
  for (ProcessId pid = youngest; pid > 0 && processes.size() < kMaximumAncestors;) {
    const auto record = system.kernelProcess(pid);
    if (!record || !*record) break;
    processes.push_back({pid, **record, system.processPath(pid)});
    pid = (*record)->e_ppid;
  }
  return processes;
}

std::string bootText(double bootTime) {
  if (bootTime < 0) return "unknown";
  return description(Value(Date{bootTime - static_cast<double>(kReferenceDateUnixSeconds)}));
}

// The configuration of a running platform names the log sink that was chosen.
const char* sinkText(const PlatformConfiguration& configuration) {
  switch (configuration.logSink.value_or(PlatformConfiguration::LogSink::kFile)) {
    case PlatformConfiguration::LogSink::kJournal:
      return "journal";
    case PlatformConfiguration::LogSink::kSyslog:
      return "syslog";
    case PlatformConfiguration::LogSink::kFile:
      return "file";
  }
  return "";
}

const char* backendText(const PlatformConfiguration& configuration) {
  switch (configuration.jobBackend) {
    case PlatformConfiguration::JobBackend::kEmbedded:
      return "embedded";
    case PlatformConfiguration::JobBackend::kSystemd:
      return "systemd";
  }
  return "";
}

bool startsInUnits(const PlatformConfiguration& configuration) {
  return configuration.jobBackend == PlatformConfiguration::JobBackend::kSystemd;
}

std::string treesText(const PlatformReport& report) {
  if (startsInUnits(report.configuration)) return "units of systemd";
  if (report.controlGroups) return "control groups in " + *report.controlGroups;
  return "process groups and marks: " + report.controlGroups.error();
}

}  // namespace

PlatformReport makePlatformReport(const SystemInformation& system,
                                  const PlatformConfiguration& configuration, ProcessId self,
                                  UserId caller) {
  PlatformReport report{
      .configuration = configuration,
      .kernelRelease = system.unameRelease(),
      .systemVersion = NSProcessInfo::Extensions::osVersionString(&system),
      .marketingVersion = NSProcessInfo::Extensions::systemMajorString(&system).value_or(""),
      .bootTime = systemBootTime(system),
      .controlGroups = {},
      .users = {},
      .processes = lineage(system, self)};
  for (const UserId uid : {UserId{0}, caller}) {
    const auto identity = system.identityForPosixId(uid);
    if (identity && (uid != 0 || report.users.empty())) report.users.push_back({uid, *identity});
  }
  return report;
}

std::string asTable(const PlatformReport& report) {
  std::string text;
  const auto out = std::back_inserter(text);
  fmt::format_to(out, "Platform root   {}\n", escaped(report.configuration.root));
  fmt::format_to(out, "Release         {}\n", report.kernelRelease);
  fmt::format_to(out, "Version         {} ({})\n", report.systemVersion, report.marketingVersion);
  fmt::format_to(out, "Booted          {}\n", bootText(report.bootTime));
  fmt::format_to(out, "Log             {}, levels to {}\n", sinkText(report.configuration),
                 report.configuration.logLevel);
  fmt::format_to(out, "Job backend     {}\n", backendText(report.configuration));
  fmt::format_to(out, "Job trees       {}\n", escaped(treesText(report)));
  fmt::format_to(out, "\n{:>7}  {:<16} {}\n", "UID", "USER", "FULL NAME");
  for (const auto& [uid, identity] : report.users) {
    fmt::format_to(out, "{:>7}  {:<16} {}\n", uid, escaped(identity.posixName),
                   escaped(identity.fullName));
  }
  fmt::format_to(out, "\n{:>7}  {:>7}  {:>7}  {:<16} {}\n", "PID", "PARENT", "UID", "PROCESS",
                 "PATH");
  for (const auto& [pid, record, path] : report.processes) {
    fmt::format_to(out, "{:>7}  {:>7}  {:>7}  {:<16} {}\n", pid, record.e_ppid, record.cr_uid,
                   escaped(record.p_comm), escaped(path.value_or("-")));
  }
  return text;
}

nlohmann::ordered_json asJson(const PlatformReport& report) {
  nlohmann::ordered_json json;
  json["root"] = report.configuration.root;
  json["kernelRelease"] = report.kernelRelease;
  json["systemVersion"] = report.systemVersion;
  json["marketingVersion"] = report.marketingVersion;
  json["bootTime"] = nullptr;
  if (report.bootTime >= 0) json["bootTime"] = report.bootTime;
  json["logSink"] = sinkText(report.configuration);
  json["logLevel"] = report.configuration.logLevel;
  json["jobBackend"] = backendText(report.configuration);
  json["controlGroups"] = nullptr;
  if (report.controlGroups && !startsInUnits(report.configuration))
    json["controlGroups"] = *report.controlGroups;
  json["users"] = nlohmann::ordered_json::array();
  for (const auto& [uid, identity] : report.users) {
    json["users"].push_back(
        {{"uid", uid}, {"name", identity.posixName}, {"fullName", identity.fullName}});
  }
  json["processes"] = nlohmann::ordered_json::array();
  for (const auto& [pid, record, path] : report.processes) {
    nlohmann::ordered_json process{{"pid", pid},
                                   {"parent", record.e_ppid},
                                   {"realUid", record.p_ruid},
                                   {"effectiveUid", record.cr_uid},
                                   {"name", record.p_comm}};
    process["path"] = path ? nlohmann::ordered_json(*path) : nlohmann::ordered_json();
    json["processes"].push_back(std::move(process));
  }
  return json;
}
