#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

#include <memory>

#include <gtest/gtest.h>

#include "Platform/SystemFacts/SystemInformation_contract.h"

namespace platform {
namespace {

class FakeInformationMachine final : public SystemInformationMachine {
 public:
  FakeInformationMachine() {
    system_.setRelease("15.6.0", {10, 11, 6});
    system_.addProcess(runningProcess(), recordOfRunningProcess(), pathOfRunningProcess());
    system_.addProcess(endedProcess(), {}, "/usr/bin/ended");
    system_.removeProcess(endedProcess());
  }

  const SystemInformation& system() override { return system_; }
  ProcessId runningProcess() override { return 70; }
  KernelProcess recordOfRunningProcess() override { return {1, 501, 0, "demo (1)"}; }
  std::string pathOfRunningProcess() override { return "/usr/sbin/demo"; }
  ProcessId endedProcess() override { return 71; }

 private:
  FakeSystemInformation system_;
};

std::unique_ptr<SystemInformationMachine> makeFakeMachine() {
  return std::make_unique<FakeInformationMachine>();
}

INSTANTIATE_TEST_SUITE_P(Fake, SystemInformationContract, testing::Values(&makeFakeMachine));

TEST(FakeSystemInformationTest, AnUnreadableProcessIsAnErrorAndHasNoPath) {
  FakeSystemInformation system;
  system.addProcess(70, {}, "/x");
  system.makeUnreadable(70);
  EXPECT_FALSE(system.kernelProcess(70));
  EXPECT_EQ(system.processPath(70), std::nullopt);
}

TEST(FakeSystemInformationTest, GestaltCanReturnAnythingOrFail) {
  FakeSystemInformation system;
  system.setGestalt("sysv", 0x103f);
  EXPECT_EQ(system.gestalt("sysv"), 0x103f);
  system.failGestalt("sysv");
  EXPECT_EQ(system.gestalt("sysv").error().code, ErrorCode::kSystem);
  EXPECT_EQ(system.gestalt("sys2"), 11);
}

}  // namespace
}  // namespace platform
