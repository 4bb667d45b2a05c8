#pragma once

// The contract of every maker of tasks. A test program derives a TaskHarness, which makes programs,
// and instantiates:
//   INSTANTIATE_TEST_SUITE_P(Fake, TaskContract, testing::Values(&makeFakeHarness));

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Processes/Task.h"

namespace platform {

class TaskHarness {
 public:
  virtual ~TaskHarness() = default;

  virtual Tasks& tasks() = 0;
  virtual NotificationCenter& center() = 0;
  // Whether the handles of these tasks call readability handlers.
  virtual bool callsHandlers() = 0;

  // The path of a program that writes `output`, then `error`, and ends with `status`.
  virtual std::string program(const std::string& output, const std::string& error, int status) = 0;
  // The path of a program that a signal ends.
  virtual std::string programEndedBy(int signal) = 0;
};

class TaskContract : public testing::TestWithParam<std::unique_ptr<TaskHarness> (*)()> {
 protected:
  static std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

  static std::string allOf(FileHandle& handle) {
    std::string text;
    for (Data chunk = handle.availableData(); !chunk.empty(); chunk = handle.availableData()) {
      text += textOf(chunk);
    }
    return text;
  }

  // Appends the data of `handle` to `text`, by handler or by notice.
  NotificationCenter::Observation collect(FileHandle* handle, std::string& text) {
    if (harness_->callsHandlers()) {
      handle->setReadabilityHandler(
          [&text](FileHandle& readable) { text += textOf(readable.availableData()); });
      return {};
    }
    handle->waitForDataInBackgroundAndNotify();
    return harness_->center().addObserver(NSFileHandleDataAvailableNotification, handle,
                                          [&text, handle](const Notification&) {
                                            text += allOf(*handle);
                                            handle->waitForDataInBackgroundAndNotify();
                                          });
  }

  std::unique_ptr<TaskHarness> harness_ = GetParam()();
  std::unique_ptr<Task> task_ = harness_->tasks().newTask();
};

TEST_P(TaskContract, AFreshTaskIsNotConfigured) {
  EXPECT_EQ(task_->launchPath(), "");
  EXPECT_EQ(task_->pipes().standardOutput, nullptr);
  EXPECT_EQ(task_->pipes().standardError, nullptr);
  EXPECT_EQ(task_->waitUntilExit(), -1);
  EXPECT_EQ(&task_->notificationCenter(), &harness_->center());
}

TEST_P(TaskContract, TheHandlesTellWhetherTheyCallHandlers) {
  task_->makePipes();
  for (const FileHandle* handle : {task_->pipes().standardOutput, task_->pipes().standardError}) {
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle->respondsToSetReadabilityHandler(), harness_->callsHandlers());
  }
}

TEST_P(TaskContract, TheStatusIsThatOfTheProgram) {
  for (const int status : {0, 1, 42, 255}) {
    const auto task = harness_->tasks().newTask();
    task->setLaunchPath(harness_->program("", "", status));
    ASSERT_TRUE(task->launch());
    EXPECT_EQ(task->waitUntilExit(), status);
    EXPECT_EQ(task->waitUntilExit(), status);
  }
}

TEST_P(TaskContract, ASignalsNumberIsTheStatus) {
  task_->setLaunchPath(harness_->programEndedBy(9));
  ASSERT_TRUE(task_->launch());
  EXPECT_EQ(task_->waitUntilExit(), 9);
}

TEST_P(TaskContract, AllOutputIsThereAfterTheWait) {
  const std::string output(50'000, 'o');
  task_->setLaunchPath(harness_->program(output, "error text", 3));
  task_->makePipes();
  const auto [standardOutput, standardError] = task_->pipes();
  std::string out;
  std::string err;
  const auto observingOutput = collect(standardOutput, out);
  const auto observingError = collect(standardError, err);
  ASSERT_TRUE(task_->launch());
  EXPECT_EQ(task_->waitUntilExit(), 3);
  if (!harness_->callsHandlers()) {
    out += allOf(*standardOutput);
    err += allOf(*standardError);
  }
  EXPECT_EQ(out, output);
  EXPECT_EQ(err, "error text");
  EXPECT_TRUE(standardOutput->availableData().empty());
}

TEST_P(TaskContract, UnreadOutputIsThereAfterTheEnd) {
  task_->setLaunchPath(harness_->program("output", "error", 0));
  task_->makePipes();
  ASSERT_TRUE(task_->launch());
  EXPECT_EQ(task_->waitUntilExit(), 0);
  EXPECT_EQ(allOf(*task_->pipes().standardError), "error");
  EXPECT_EQ(allOf(*task_->pipes().standardOutput), "output");
  EXPECT_EQ(allOf(*task_->pipes().standardOutput), "");
}

TEST_P(TaskContract, AMissingPathIsNotAccessible) {
  for (const char* path : {"/no/such/program", "", "/"}) {
    const auto task = harness_->tasks().newTask();
    task->setLaunchPath(path);
    task->makePipes();
    const auto launched = task->launch();
    ASSERT_FALSE(launched) << path;
    EXPECT_EQ(launched.error().name, "NSInvalidArgumentException");
    EXPECT_EQ(launched.error().reason, "launch path not accessible");
    EXPECT_EQ(task->waitUntilExit(), -1);
  }
}

TEST_P(TaskContract, ATaskIsLaunchedOnce) {
  task_->setLaunchPath(harness_->program("", "", 0));
  ASSERT_TRUE(task_->launch());
  const auto again = task_->launch();
  ASSERT_FALSE(again);
  EXPECT_EQ(again.error().reason, "task already launched");
  EXPECT_EQ(task_->waitUntilExit(), 0);
  EXPECT_FALSE(task_->launch());
}

TEST_P(TaskContract, AKeptObjectIsDestroyedWithTheTask) {
  auto object = std::make_shared<int>(1);
  task_->keep(object);
  EXPECT_EQ(object.use_count(), 2);
  task_.reset();
  EXPECT_EQ(object.use_count(), 1);
}

}  // namespace platform
