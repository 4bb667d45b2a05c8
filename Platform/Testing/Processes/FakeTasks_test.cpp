#include "Platform/Testing/Processes/FakeTasks.h"

#include <gtest/gtest.h>

#include "Platform/Processes/Task_contract.h"

namespace platform {
namespace {

template <bool CallsHandlers>
class FakePrograms final : public TaskHarness {
 public:
  Tasks& tasks() override { return tasks_; }
  NotificationCenter& center() override { return center_; }
  bool callsHandlers() override { return CallsHandlers; }
  std::string program(const std::string& output, const std::string& error, int status) override {
    FakeTasks::Program program;
    if (!output.empty()) program.whileRunning.push_back({FakeTasks::Stream::kOutput, output});
    if (!error.empty()) program.atItsEnd.push_back({FakeTasks::Stream::kError, error});
    program.status = status;
    tasks_.setProgram("/program", program);
    return "/program";
  }
  std::string programEndedBy(int signal) override { return program("", "", signal); }

 private:
  NotificationCenter center_;
  FakeTasks tasks_{center_, CallsHandlers};
};

template <bool CallsHandlers>
std::unique_ptr<TaskHarness> make() {
  return std::make_unique<FakePrograms<CallsHandlers>>();
}

INSTANTIATE_TEST_SUITE_P(FakeHandlers, TaskContract, testing::Values(&make<true>));
INSTANTIATE_TEST_SUITE_P(FakeNotices, TaskContract, testing::Values(&make<false>));

TEST(FakeTasksTest, LaunchesAreRecorded) {
  NotificationCenter center;
  FakeTasks tasks(center, true);
  tasks.setProgram("/a", {});
  const auto task = tasks.newTask();
  task->setLaunchPath("/a");
  task->setArguments({"x", "y"});
  EXPECT_TRUE(task->launch());
  ASSERT_EQ(tasks.launches().size(), 1u);
  EXPECT_EQ(tasks.launches()[0].path, "/a");
  EXPECT_EQ(tasks.launches()[0].arguments, (std::vector<std::string>{"x", "y"}));
}

TEST(FakeTasksTest, WithoutPipesNothingIsLaunched) {
  NotificationCenter center;
  FakeTasks tasks(center, true);
  tasks.setProgram("/a", {});
  tasks.setWithoutPipes();
  const auto task = tasks.newTask();
  task->setLaunchPath("/a");
  task->makePipes();
  EXPECT_EQ(task->pipes().standardOutput, nullptr);
  EXPECT_FALSE(task->launch());
  EXPECT_TRUE(tasks.launches().empty());
}

}  // namespace
}  // namespace platform
