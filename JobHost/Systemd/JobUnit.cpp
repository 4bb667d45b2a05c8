#include "JobHost/Systemd/JobUnit.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <utility>

#include <fmt/format.h>
#include <sys/resource.h>

#include "JobHost/Processes/ChildLimits.h"
#include "JobHost/Processes/JobPriority.h"
#include "Platform/Linux/Systemd/UnitNames.h"

namespace jobhost {
namespace {

using platform::Result;
using platform::UnitCommand;
using platform::UnitDescriptor;
using platform::UnitProperty;

constexpr std::size_t kMaximumUnitNameBytes = 255;
constexpr char kPrefix[] = "vantor-";
constexpr std::string_view kSuffix = ".service";
constexpr std::string_view kAbandoning = "..abandons";
constexpr std::uint32_t kUmaskOfUnits = 022;
constexpr char kPathOfUnits[] = "/usr/bin:/bin:/usr/sbin:/sbin";
// systemd's default, for a job that sets only the hard limit.
constexpr std::uint64_t kSoftDescriptorLimit = 1024;
constexpr int kIoClassShift = 13;
constexpr int kIoPriorityMask = 7;

constexpr std::pair<int, std::string_view> kLimitProperties[] = {
    {RLIMIT_CORE, "LimitCORE"},   {RLIMIT_CPU, "LimitCPU"},         {RLIMIT_DATA, "LimitDATA"},
    {RLIMIT_FSIZE, "LimitFSIZE"}, {RLIMIT_MEMLOCK, "LimitMEMLOCK"}, {RLIMIT_NOFILE, "LimitNOFILE"},
    {RLIMIT_NPROC, "LimitNPROC"}, {RLIMIT_RSS, "LimitRSS"},         {RLIMIT_STACK, "LimitSTACK"},
};

std::uint64_t microsecondsOf(platform::Duration duration) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(duration).count());
}

void addLimits(const JobDefinition& job, const std::vector<ChildLimit>& limits,
               std::vector<UnitProperty>& to) {
  for (const ChildLimit& limit : limits) {
    const bool isOwn =
        std::ranges::find(job.limits, limit.resource, &ResourceLimit::resource) != job.limits.end();
    const auto known = std::ranges::find(kLimitProperties, limit.resource,
                                         &std::pair<int, std::string_view>::first);
    // Otherwise systemd's own defaults hold, but theirs keeps cores from a collector.
    const bool isCollected = limit.resource == RLIMIT_CORE && limit.value.rlim_cur > 0;
    if ((!isOwn && !isCollected) || known == std::end(kLimitProperties)) continue;
    to.push_back({std::string(known->second), std::uint64_t{limit.value.rlim_max}});
    to.push_back({std::string(known->second) + "Soft", std::uint64_t{limit.value.rlim_cur}});
  }
}

std::vector<std::string> environmentOf(const JobDefinition& job, const JobAccount& account) {
  std::vector<std::string> variables;
  for (const auto& [name, text] : job.environment) {
    if (isSetBySystemd(name)) variables.push_back(name + "=" + text);
  }
  const std::pair<std::string_view, std::string_view> expected[] = {{"PATH", kPathOfUnits},
                                                                    {"HOME", account.home},
                                                                    {"USER", account.name},
                                                                    {"LOGNAME", account.name},
                                                                    {"SHELL", account.shell}};
  for (const auto& [name, text] : expected) {
    const auto isGiven = [&](const auto& given) { return given.first == name; };
    if (std::ranges::none_of(job.environment, isGiven))
      variables.push_back(fmt::format("{}={}", name, text));
  }
  return variables;
}

// The starter itself changes the root folder and drops the user's groups, since systemd would look
// for the starter in that folder, and always takes the user's groups.
std::uint64_t capabilitiesOfStarter(const JobDefinition& job, const JobAccount& account) {
  constexpr int kSetGid = 6;
  constexpr int kSysChroot = 18;
  if (account.user == 0) return 0;  // root has them anyway
  std::uint64_t capabilities = 0;
  if (job.rootDirectory) capabilities |= std::uint64_t{1} << kSysChroot;
  if (!job.initGroups && job.userName) capabilities |= std::uint64_t{1} << kSetGid;
  return capabilities;
}

void addStandardFile(const char* name, int descriptor, bool printsToJournal,
                     std::vector<UnitProperty>& to) {
  if (descriptor < 0) {
    to.push_back({name, std::string(printsToJournal ? "journal" : "null")});
  } else {
    to.push_back({fmt::format("{}FileDescriptor", name), UnitDescriptor{descriptor}});
  }
}

}  // namespace

std::string unitNameOf(std::string_view label, bool abandonsGroup) {
  std::string name = kPrefix + platform::escapedForUnitName(label);
  const std::string_view kind = abandonsGroup ? kAbandoning : std::string_view();
  const std::size_t room = kMaximumUnitNameBytes - kind.size() - kSuffix.size();
  // A label with the end of the other kind would have another label's unit.
  if (name.size() > room || name.ends_with(kAbandoning)) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(label.data());
    const std::string number = fmt::format("..{:016x}", hashOn(kEmptyHash, bytes, label.size()));
    name.resize(std::min(name.size(), room - number.size()));
    // Half an escape would be another text.
    if (const auto escape = name.rfind('\\'); escape != name.npos && escape + 4 > name.size())
      name.resize(escape);
    name += number;
  }
  return name.append(kind).append(kSuffix);
}

std::string groupPathOf(const std::string& slice) {
  std::string path;
  for (std::size_t dash = slice.find('-'); dash != slice.npos; dash = slice.find('-', dash + 1)) {
    path += "/" + slice.substr(0, dash) + ".slice";
  }
  return path + "/" + slice;
}

bool isInUnitOf(std::string_view groups, const std::string& slice, std::string_view label) {
  constexpr std::string_view kVersion2 = "0::";
  while (!groups.empty() && !groups.starts_with(kVersion2)) {
    const std::size_t end = groups.find('\n');
    groups.remove_prefix(end == groups.npos ? groups.size() : end + 1);
  }
  const std::string_view line = groups.substr(0, groups.find('\n'));
  // The process may be in a group below the unit's.
  return std::ranges::any_of(std::array{false, true}, [&](bool abandonsGroup) {
    const std::string unit =
        fmt::format("{}{}/{}", kVersion2, groupPathOf(slice), unitNameOf(label, abandonsGroup));
    return line == unit || line.starts_with(unit + "/");
  });
}

bool isUnitOfJob(std::string_view unit) {
  return unit.starts_with(kPrefix) && unit.ends_with(kSuffix);
}

bool isAbandoningUnit(std::string_view unit) {
  if (!isUnitOfJob(unit)) return false;
  unit.remove_suffix(kSuffix.size());
  return unit.ends_with(kAbandoning);
}

std::string sliceOf(const std::string& root, std::uint64_t host) {
  return root == "/" ? "vantor.slice" : fmt::format("vantor-{:016x}.slice", host);
}

bool isSliceOfJobs(std::string_view slice) {
  return slice == "vantor.slice" || slice.starts_with(kPrefix);
}

bool isSetBySystemd(std::string_view variable) {
  const auto isLetter = [](char each) {
    return (each >= 'a' && each <= 'z') || (each >= 'A' && each <= 'Z') || each == '_';
  };
  const auto isAllowed = [&](char each) { return isLetter(each) || (each >= '0' && each <= '9'); };
  const bool isForLinker = variable.starts_with("LD_") || variable == "GLIBC_TUNABLES";
  return !variable.empty() && isLetter(variable.front()) &&
         std::ranges::all_of(variable, isAllowed) && !isForLinker;
}

Result<std::vector<UnitProperty>> propertiesOf(const JobDefinition& job, const JobAccount& account,
                                               const UnitSurroundings& surroundings) {
  const auto limits = limitsOf(job, kSoftDescriptorLimit, LimitsOfHost::kAreNotInherited);
  if (!limits) return std::unexpected(limits.error());
  std::vector<UnitProperty> properties{
      {"Description", job.label},
      {"Slice", surroundings.slice},
      // The unit's job fails if the process does not come to the starter.
      {"Type", std::string("exec")},
      {"ExecStart", UnitCommand{surroundings.starter, {"jobstart", job.label}}},
      // Keeps the unit, and with it the exit status, until the host has read it.
      {"RemainAfterExit", true},
      {"Restart", std::string("no")},
      {"KillMode", std::string(job.abandonsProcessGroup ? "process" : "control-group")},
      {"TimeoutStopUSec",
       job.exitTimeOut > platform::Duration::zero() ? microsecondsOf(job.exitTimeOut) : UINT64_MAX},
      {"StartLimitIntervalUSec", std::uint64_t{0}},
      {"StandardInputFileDescriptor", UnitDescriptor{surroundings.starterDescriptor}},
      // A service must not end because the journal does.
      {"IgnoreSIGPIPE", surroundings.printsToJournal},
      {"UMask", std::uint32_t{job.umask.value_or(kUmaskOfUnits)}},
      {"Environment", environmentOf(job, account)},
  };
  const bool printsToJournal = surroundings.printsToJournal;
  addStandardFile("StandardOutput", surroundings.outputDescriptor, printsToJournal, properties);
  addStandardFile("StandardError", surroundings.errorDescriptor, printsToJournal, properties);
  if (printsToJournal) properties.push_back({"SyslogIdentifier", job.label});
  // A host that is stopped ends its jobs itself, in their order. Only then systemd may end what is
  // left.
  if (!surroundings.hostUnit.empty())
    properties.push_back({"Before", std::vector{surroundings.hostUnit}});
  if (job.userName) properties.push_back({"User", account.name});
  if (job.groupName) properties.push_back({"Group", *job.groupName});
  if (!job.rootDirectory) properties.push_back({"WorkingDirectory", job.workingDirectory});
  if (const auto needed = capabilitiesOfStarter(job, account); needed != 0) {
    properties.push_back({"AmbientCapabilities", needed});
  }
  const JobPriority priority = priorityOf(job);
  properties.push_back({"Nice", std::int32_t{priority.nice}});
  if (priority.ioPriority != 0) {
    properties.push_back({"IOSchedulingClass", std::int32_t{priority.ioPriority >> kIoClassShift}});
    properties.push_back(
        {"IOSchedulingPriority", std::int32_t{priority.ioPriority & kIoPriorityMask}});
  }
  properties.push_back({"CPUWeight", static_cast<std::uint64_t>(priority.weight)});
  properties.push_back({"IOWeight", static_cast<std::uint64_t>(priority.weight)});
  addLimits(job, *limits, properties);
  return properties;
}

Ending endingOf(std::int32_t code, std::int32_t status) {
  using platform::ExitStatus;
  switch (code) {
    case CLD_EXITED:
      return ProcessEnd(ExitStatus{ExitStatus::Kind::kExited, status});
    case CLD_KILLED:
      return ProcessEnd(ExitStatus{ExitStatus::Kind::kSignalled, status});
    case CLD_DUMPED:
      return ProcessEnd(ExitStatus{ExitStatus::Kind::kSignalled, status}, true);
    default:
      return std::nullopt;
  }
}

std::string_view setupStageOf(std::int32_t exitStatus) {
  constexpr std::pair<std::int32_t, std::string_view> kStages[] = {
      {200, "changing to the working directory"},
      {201, "setting the niceness"},
      {202, "passing the descriptors"},
      {203, "executing the starter of jobs"},
      {205, "setting a limit"},
      {206, "the score for the OOM killer"},
      {208, "the standard input"},
      {209, "the standard output"},
      {211, "the I/O priority"},
      {216, "taking the group"},
      {217, "taking the user"},
      {218, "the capabilities"},
      {219, "the control group"},
      {220, "a session"},
      {222, "the standard error"},
      {226, "the namespaces"},
      {227, "the new privileges"},
      {228, "the filter of system calls"},
  };
  const auto known =
      std::ranges::find(kStages, exitStatus, &std::pair<std::int32_t, std::string_view>::first);
  return known == std::end(kStages) ? std::string_view() : known->second;
}

}  // namespace jobhost
