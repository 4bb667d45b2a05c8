#include "ServiceManager/Supervision/VGKextManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Testing/Processes/FakeTasks.h"

namespace {

using testing::ElementsAre;

class VGKextManagerTest : public testing::Test {
 protected:
  platform::NotificationCenter center_;
  platform::FakeTasks tasks_{center_, true};
};

TEST_F(VGKextManagerTest, TheProgramOfThePlatformRunsWithTheArguments) {
  tasks_.setProgram("/root/sbin/kextunload", {});
  EXPECT_TRUE(VGKextManagerExecuteKextCommand(tasks_, "/root", {"-b", "com.example"}));
  ASSERT_EQ(tasks_.launches().size(), 1u);
  EXPECT_THAT(tasks_.launches()[0].arguments, ElementsAre("-b", "com.example"));
  tasks_.setProgram("/sbin/kextunload", {});
  EXPECT_TRUE(VGKextManagerExecuteKextCommand(tasks_, "/", {}));
}

TEST_F(VGKextManagerTest, AnyStatusButZeroIsAFailure) {
  for (const int status : {1, 2, 255, -1}) {
    tasks_.setProgram("/sbin/kextunload", {{}, {}, status});
    EXPECT_FALSE(VGKextManagerExecuteKextCommand(tasks_, "/", {})) << status;
  }
}

TEST_F(VGKextManagerTest, AMissingProgramIsAFailure) {
  EXPECT_FALSE(VGKextManagerExecuteKextCommand(tasks_, "/", {}));
}

}  // namespace
