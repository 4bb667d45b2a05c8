#include "Tools/servicemanagerctl/DoctorFindings.h"

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using platform::WallTime;
using testing::AllOf;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;
using testing::Not;
using Severity = Finding::Severity;
using State = ServerFact::State;

constexpr WallTime kNow{std::chrono::sys_days{std::chrono::March / 10 / 2026}};

ServerFact answering(platform::ProcessId process, const char* program) {
  return {State::kAnswers, {}, RunningProgram{process, program, true}};
}

DiskFact disk(const char* use, std::uint64_t mebibytes) {
  return {use, "/somewhere", mebibytes << 20, std::uint64_t{100'000} << 20, 5000, 100'000, false};
}

SocketFile socketFile(std::uint32_t mode, std::uint32_t owner = 0, std::uint32_t group = 7) {
  return {"/run/vantor/launchd", false, mode, owner, group, 0660, {0}, 7};
}

DoctorFacts healthyFacts() {
  DoctorFacts facts;
  facts.configuration.root = "/";
  facts.configuration.group = "vantor";
  facts.installed = std::vector<InstalledFile>{{"/usr/bin/jobhost", "the job host", true}};
  facts.group = GroupFact{true, true};
  facts.host = answering(11, "/usr/bin/jobhost");
  facts.daemon = answering(12, "/usr/lib/vantor/servicemanagerd");
  facts.bus = {State::kAnswers, {}, {}};
  facts.sockets = std::vector<SocketFile>{socketFile(0660)};
  facts.limits = LimitsFact{1'048'576, {}};
  facts.kernel = KernelFact{"6.1.0", true, true, true, KernelFact::Verity::kAvailable};
  facts.anchors = AnchorsFact{
      {{"CN=authority", kNow - std::chrono::days(1), kNow + std::chrono::days(400)}}, {}, {}};
  facts.clock = ClockFact{kNow, true, kNow - 1h};
  facts.disks = {{"log", disk("log", 5000)}, {"settings", disk("settings", 5000)}};
  return facts;
}

TEST(DoctorFindingsTest, AHealthyInstallationHasOnlyGoodFindings) {
  const auto findings = doctorFindings(healthyFacts());
  EXPECT_GE(findings.size(), 12u);
  for (const Finding& finding : findings) {
    EXPECT_EQ(finding.severity, Severity::kOk) << finding.code;
    EXPECT_THAT(finding.text, testing::EndsWith(".")) << finding.code;
  }
  EXPECT_EQ(exitStatusOf(findings), 0);
}

struct Fault {
  const char* code;
  Severity severity;
  std::function<void(DoctorFacts&)> make;
};

// Each row breaks one thing.
const Fault kFaults[] = {
    {"platform-unusable", Severity::kError,
     [](auto& facts) { facts.platformFault = "etc/vantor/platform.plist: not a dictionary"; }},
    {"configuration-mistake", Severity::kWarning,
     [](auto& facts) { facts.configuration.warnings = {"\"Grupo\" is not known"}; }},
    {"installation-incomplete", Severity::kError,
     [](auto& facts) { facts.installed->front().exists = false; }},
    {"host-absent", Severity::kError, [](auto& facts) { facts.host = {State::kAbsent, {}, {}}; }},
    {"host-hung", Severity::kError, [](auto& facts) { facts.host = {State::kHangs, {}, {}}; }},
    {"host-not-permitted", Severity::kNote,
     [](auto& facts) { facts.host = {State::kNotPermitted, "permission denied", {}}; }},
    {"host-not-trusted", Severity::kError,
     [](auto& facts) { facts.host = {State::kNotTrusted, {}, {}}; }},
    {"host-unknown", Severity::kWarning,
     [](auto& facts) { facts.host = {State::kFailed, {}, {}}; }},
    {"host-outdated", Severity::kWarning,
     [](auto& facts) { facts.host.program->isInstalledFile = false; }},
    {"host-program-not-permitted", Severity::kNote,
     [](auto& facts) {
       facts.host.program->isInstalledFile =
           std::unexpected(NotKnown{NotKnown::Why::kNotPermitted, "/proc/11/exe"});
     }},
    {"daemon-absent", Severity::kError,
     [](auto& facts) { facts.daemon = {State::kAbsent, {}, {}}; }},
    {"daemon-hung", Severity::kError, [](auto& facts) { facts.daemon = {State::kHangs, {}, {}}; }},
    {"daemon-outdated", Severity::kWarning,
     [](auto& facts) { facts.daemon.program->isInstalledFile = false; }},
    {"bus-absent", Severity::kError, [](auto& facts) { facts.bus = {State::kAbsent, {}, {}}; }},
    {"bus-hung", Severity::kError, [](auto& facts) { facts.bus = {State::kHangs, {}, {}}; }},
    {"systemd-absent", Severity::kError,
     [](auto& facts) { facts.systemd = {State::kAbsent, {}, {}}; }},
    {"systemd-hung", Severity::kError,
     [](auto& facts) { facts.systemd = {State::kHangs, {}, {}}; }},
    {"socket-open", Severity::kError,
     [](auto& facts) { facts.sockets->front() = socketFile(0666); }},
    {"socket-closed", Severity::kWarning,
     [](auto& facts) { facts.sockets->front() = socketFile(0600); }},
    {"socket-owner", Severity::kError,
     [](auto& facts) { facts.sockets->front() = socketFile(0660, 1000); }},
    {"socket-group", Severity::kError,
     [](auto& facts) { facts.sockets->front() = socketFile(0660, 0, 8); }},
    {"folder-open", Severity::kError,
     [](auto& facts) {
       facts.sockets->front() = {"/run/vantor", true, 0775, 0, 0, 0755, {0}, {}};
     }},
    {"sockets-timed-out", Severity::kError,
     [](auto& facts) { facts.sockets = std::unexpected(NotKnown{NotKnown::Why::kTimedOut, {}}); }},
    {"group-none", Severity::kNote, [](auto& facts) { facts.configuration.group.reset(); }},
    {"group-missing", Severity::kError, [](auto& facts) { facts.group->exists = false; }},
    {"group-not-member", Severity::kNote,
     [](auto& facts) {
       facts.group->isMember = false;
       facts.user = 1000;
     }},
    {"descriptors-few", Severity::kWarning, [](auto& facts) { facts.limits->descriptors = 4095; }},
    {"groups-none", Severity::kWarning,
     [](auto& facts) { facts.limits->groups = std::unexpected("read-only"); }},
    {"kernel-pidfd", Severity::kError, [](auto& facts) { facts.kernel->hasPidfd = false; }},
    {"kernel-openat2", Severity::kError, [](auto& facts) { facts.kernel->hasOpenat2 = false; }},
    {"kernel-cgroup-kill", Severity::kNote,
     [](auto& facts) { facts.kernel->hasGroupKill = false; }},
    {"kernel-fs-verity", Severity::kNote,
     [](auto& facts) { facts.kernel->verity = KernelFact::Verity::kNotAvailable; }},
    {"clock-behind", Severity::kError,
     [](auto& facts) { facts.clock->newestProgram = kNow + 5min + 1s; }},
    {"clock-unsynchronized", Severity::kNote,
     [](auto& facts) { facts.clock->isSynchronized = false; }},
    {"anchors-none", Severity::kError, [](auto& facts) { facts.anchors->anchors.clear(); }},
    {"anchors-unread", Severity::kError, [](auto& facts) { facts.anchors->unread = "line 1"; }},
    {"anchor-ignored", Severity::kWarning,
     [](auto& facts) { facts.anchors->remarks = {"a.pem: others can write it"}; }},
    {"anchor-early", Severity::kWarning,
     [](auto& facts) { facts.anchors->anchors.front().notBefore = kNow + 1s; }},
    {"anchor-expired", Severity::kWarning,
     [](auto& facts) { facts.anchors->anchors.front().notAfter = kNow; }},
    {"anchor-expires", Severity::kWarning,
     [](auto& facts) { facts.anchors->anchors.front().notAfter = kNow + std::chrono::days(30); }},
    {"disk-log-full", Severity::kError,
     [](auto& facts) { facts.disks.front().second = disk("log", 15); }},
    {"disk-log-low", Severity::kWarning,
     [](auto& facts) { facts.disks.front().second = disk("log", 127); }},
    {"disk-log-full", Severity::kError,
     [](auto& facts) { facts.disks.front().second->freeFiles = 999; }},
    {"disk-settings-read-only", Severity::kError,
     [](auto& facts) { facts.disks.back().second->isReadOnly = true; }},
    {"disk-log-unknown", Severity::kNote,
     [](auto& facts) { facts.disks.front().second = notLookedAt(); }},
};

TEST(DoctorFindingsTest, EachFaultHasItsFinding) {
  for (const Fault& fault : kFaults) {
    SCOPED_TRACE(fault.code);
    DoctorFacts facts = healthyFacts();
    fault.make(facts);
    const auto findings = doctorFindings(facts);
    EXPECT_THAT(findings, Contains(AllOf(Field(&Finding::code, fault.code),
                                         Field(&Finding::severity, fault.severity),
                                         Field(&Finding::text, testing::EndsWith(".")))));
    // Nothing else is found.
    for (const Finding& finding : findings)
      EXPECT_TRUE(finding.code == fault.code || finding.severity == Severity::kOk) << finding.code;
    const int expected = fault.severity == Severity::kError     ? 1
                         : fault.severity == Severity::kWarning ? 7
                                                                : 0;
    EXPECT_EQ(exitStatusOf(findings), expected);
  }
}

TEST(DoctorFindingsTest, AValueAtItsLimitIsGood) {
  DoctorFacts facts = healthyFacts();
  facts.limits->descriptors = 4096;
  facts.disks.front().second = disk("log", 128);
  facts.disks.back().second->freeFiles = 1000;
  facts.clock->newestProgram = kNow + 5min;
  facts.anchors->anchors.front().notAfter = kNow + std::chrono::days(30) + 1s;
  EXPECT_EQ(exitStatusOf(doctorFindings(facts)), 0);
  for (const Finding& finding : doctorFindings(facts))
    EXPECT_EQ(finding.severity, Severity::kOk) << finding.code;
}

TEST(DoctorFindingsTest, WithoutAPlatformNothingElseIsSaid) {
  EXPECT_EQ(doctorFindings({.platformFault = "no root"}).size(), 1u);
}

// systemd makes a control group for each unit, whatever the host may do.
TEST(DoctorFindingsTest, SystemdNeedsNoGroupsOfTheHost) {
  DoctorFacts facts = healthyFacts();
  facts.systemd = {State::kAnswers, {}, {}};
  facts.limits->groups = std::unexpected("read-only");
  EXPECT_EQ(exitStatusOf(doctorFindings(facts)), 0);
}

TEST(DoctorFindingsTest, ProgramsGetAVersionAndEachFinding) {
  const auto json = asJson({{"a", Severity::kOk, "Good."}, {"b", Severity::kNote, "So.", "Do."}});
  EXPECT_EQ(json.dump(), R"({"version":1,"worst":"note","findings":[)"
                         R"({"code":"a","severity":"ok","text":"Good.","advice":null},)"
                         R"({"code":"b","severity":"note","text":"So.","advice":"Do."}]})");
}

TEST(DoctorFindingsTest, PeopleGetALineForEachAndACount) {
  const std::vector<Finding> findings{{"part", Severity::kOk, "Good."},
                                      {"part-bad", Severity::kError, "Bad\033[2J.", "Repair it."}};
  EXPECT_EQ(asText(findings, Reader::kOther),
            "ok       part                        Good.\n"
            "error    part-bad                    Bad\\u001b[2J.\n"
            "                                     Repair it.\n"
            "1 errors, 0 warnings, 0 notes.\n");
  EXPECT_THAT(asText(findings, Reader::kTerminal), HasSubstr("\033[31merror"));
}

}  // namespace
