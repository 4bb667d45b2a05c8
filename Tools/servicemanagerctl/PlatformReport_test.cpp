#include "Tools/servicemanagerctl/PlatformReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using namespace platform;
using testing::HasSubstr;

class PlatformReportTest : public testing::Test {
 protected:
  PlatformReportTest() {
    system_.addProcess(1, {.e_ppid = 0, .p_ruid = 0, .cr_uid = 0, .p_comm = "init"}, "/sbin/init");
    system_.addProcess(40, {.e_ppid = 1, .p_ruid = 7, .cr_uid = 0, .p_comm = "sh"}, std::nullopt);
    system_.addUser(7, {"ada", "Ada Example"});
  }

  PlatformReport report(ProcessId self, UserId caller) {
    return makePlatformReport(system_, defaultPlatformConfiguration("/srv/root"), self, caller);
  }

  FakeSystemInformation system_;
};

TEST_F(PlatformReportTest, TellsReleaseVersionAndBootTime) {
  const std::string table = asTable(report(40, 7));
  EXPECT_THAT(table, HasSubstr("Platform root   /srv/root\n"));
  EXPECT_THAT(table, HasSubstr("Release         15.0.0\n"));
  EXPECT_THAT(table, HasSubstr("Version         10.11.0 (10.11)\n"));
  EXPECT_THAT(table, HasSubstr("Booted          2026-01-02 03:04:05 +0000\n"));
}

TEST_F(PlatformReportTest, TellsWhereJobsHaveControlGroups) {
  PlatformReport made = report(40, 7);
  made.controlGroups = "/sys/fs/cgroup";
  EXPECT_THAT(asTable(made), HasSubstr("Job trees       control groups in /sys/fs/cgroup\n"));
  EXPECT_EQ(asJson(made)["controlGroups"], "/sys/fs/cgroup");
  made.controlGroups = std::unexpected("there are none");
  EXPECT_THAT(asTable(made),
              HasSubstr("Job trees       process groups and marks: there are none\n"));
  EXPECT_TRUE(asJson(made)["controlGroups"].is_null());
}

TEST_F(PlatformReportTest, TellsWhichBackendStartsJobs) {
  PlatformReport made = report(40, 7);
  made.controlGroups = "/sys/fs/cgroup";
  EXPECT_THAT(asTable(made), HasSubstr("Job backend     embedded\n"));
  EXPECT_EQ(asJson(made)["jobBackend"], "embedded");
  made.configuration.jobBackend = PlatformConfiguration::JobBackend::kSystemd;
  EXPECT_THAT(asTable(made),
              HasSubstr("Job backend     systemd\nJob trees       units of systemd\n"));
  EXPECT_EQ(asJson(made)["jobBackend"], "systemd");
  EXPECT_TRUE(asJson(made)["controlGroups"].is_null());
}

TEST_F(PlatformReportTest, AnUnreadableBootTimeIsUnknown) {
  system_.setBootTime(std::unexpected(Error{ErrorCode::kSystem, 2, "/proc/stat"}));
  testing::internal::CaptureStderr();
  const PlatformReport made = report(40, 7);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("sysctl: "));
  EXPECT_THAT(asTable(made), HasSubstr("Booted          unknown\n"));
  EXPECT_TRUE(asJson(made)["bootTime"].is_null());
}

TEST_F(PlatformReportTest, TellsTheProcessAndItsAncestors) {
  const auto json = asJson(report(40, 7));
  ASSERT_EQ(json["processes"].size(), 2u);
  EXPECT_EQ(json["processes"][0]["pid"], 40);
  EXPECT_EQ(json["processes"][0]["realUid"], 7);
  EXPECT_TRUE(json["processes"][0]["path"].is_null());
  EXPECT_EQ(json["processes"][1]["path"], "/sbin/init");
}

TEST_F(PlatformReportTest, AParentThatHasEndedIsTheLastAncestor) {
  system_.removeProcess(1);
  EXPECT_EQ(report(40, 7).processes.size(), 1u);
  EXPECT_TRUE(report(99, 7).processes.empty());
}

TEST_F(PlatformReportTest, ACircleOfParentsEnds) {
  system_.addProcess(1, {.e_ppid = 40, .p_ruid = 0, .cr_uid = 0, .p_comm = "init"}, std::nullopt);
  EXPECT_EQ(report(40, 7).processes.size(), 64u);
}

TEST_F(PlatformReportTest, NamesRootAndTheCallerEachOnce) {
  EXPECT_EQ(report(40, 7).users.size(), 2u);
  EXPECT_EQ(report(40, 0).users.size(), 1u);
  EXPECT_EQ(report(40, 12345).users.size(), 1u);
  EXPECT_EQ(asJson(report(40, 7))["users"][1]["fullName"], "Ada Example");
}

}  // namespace
