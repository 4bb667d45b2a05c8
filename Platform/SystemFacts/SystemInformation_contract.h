#pragma once

// The contract of every SystemInformation. A test program derives a machine from
// SystemInformationMachine and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, SystemInformationContract, testing::Values(&makeFakeMachine));

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/SystemFacts/SystemInformation.h"

namespace platform {

// A machine with release 15.6.0, version 10.11.6 and a running process. Its user 0 is called
// "root". It has no user 4294967294 and no process with the largest number.
class SystemInformationMachine {
 public:
  virtual ~SystemInformationMachine() = default;

  virtual const SystemInformation& system() = 0;
  virtual ProcessId runningProcess() = 0;
  virtual KernelProcess recordOfRunningProcess() = 0;
  virtual std::string pathOfRunningProcess() = 0;
  // A process that has ended and been reaped.
  virtual ProcessId endedProcess() = 0;
};

class SystemInformationContract
    : public testing::TestWithParam<std::unique_ptr<SystemInformationMachine> (*)()> {
 protected:
  void expectNoProcess(ProcessId process) {
    const auto record = system_.kernelProcess(process);
    ASSERT_TRUE(record) << process << ": " << record.error().context;
    EXPECT_FALSE(*record) << process;
    EXPECT_EQ(system_.processPath(process), std::nullopt) << process;
  }

  std::unique_ptr<SystemInformationMachine> machine_ = GetParam()();
  const SystemInformation& system_ = machine_->system();
};

TEST_P(SystemInformationContract, TheReleaseIsThatOfThePlatform) {
  EXPECT_EQ(system_.unameRelease(), "15.6.0");
  EXPECT_EQ(system_.operatingSystemVersion(), (OperatingSystemVersion{10, 11, 6}));
}

TEST_P(SystemInformationContract, GestaltAgreesWithTheVersion) {
  EXPECT_EQ(system_.gestalt("sysv"), 0x1096);
  EXPECT_EQ(system_.gestalt("sys1"), 10);
  EXPECT_EQ(system_.gestalt("sys2"), 11);
  EXPECT_EQ(system_.gestalt("sys3"), 6);
  const auto unknown = system_.gestalt("mach");
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().code, ErrorCode::kNotFound);
}

TEST_P(SystemInformationContract, ARunningProcessHasARecordAndAPath) {
  const auto record = system_.kernelProcess(machine_->runningProcess());
  ASSERT_TRUE(record) << record.error().context;
  ASSERT_TRUE(*record);
  const KernelProcess expected = machine_->recordOfRunningProcess();
  EXPECT_EQ((*record)->e_ppid, expected.e_ppid);
  EXPECT_EQ((*record)->p_ruid, expected.p_ruid);
  EXPECT_EQ((*record)->cr_uid, expected.cr_uid);
  EXPECT_EQ((*record)->p_comm, expected.p_comm);
  EXPECT_EQ(system_.processPath(machine_->runningProcess()), machine_->pathOfRunningProcess());
}

TEST_P(SystemInformationContract, AnEndedProcessIsNoError) {
  expectNoProcess(machine_->endedProcess());
}

TEST_P(SystemInformationContract, UnusedProcessNumbersAreNoError) {
  for (const ProcessId process :
       {0, -1, std::numeric_limits<ProcessId>::min(), std::numeric_limits<ProcessId>::max()}) {
    expectNoProcess(process);
  }
}

TEST_P(SystemInformationContract, AUserHasAPosixNameAndAFullName) {
  const auto root = system_.identityForPosixId(0);
  ASSERT_TRUE(root);
  EXPECT_EQ(root->posixName, "root");
  EXPECT_NE(root->fullName, "");
}

TEST_P(SystemInformationContract, AnUnknownUserHasNoIdentity) {
  EXPECT_FALSE(system_.identityForPosixId(std::numeric_limits<UserId>::max() - 1));
}

TEST_P(SystemInformationContract, TheBootTimeStaysTheSame) {
  const auto seconds = system_.bootTime();
  ASSERT_TRUE(seconds) << seconds.error().context;
  EXPECT_GT(*seconds, 0);
  EXPECT_EQ(system_.bootTime(), *seconds);
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(SystemInformationContract);

}  // namespace platform
