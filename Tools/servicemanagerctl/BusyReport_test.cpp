#include "Tools/servicemanagerctl/BusyReport.h"

#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;

Value busy(double seconds, const Value& work = {}, const Value& label = {}) {
  Dictionary thread{{kFactBusyFor, seconds}};
  if (!work.isNil()) thread.set(kFactWork, work);
  if (!label.isNil()) thread.set(kFactWorkLabel, label);
  return Dictionary{{kFactMainThread, std::move(thread)}};
}

TEST(BusyReport, AMainThreadThatIsBusyForOverASecondIsReported) {
  EXPECT_EQ(mainThreadsWork(busy(3.21, "checksProgram", "agent")),
            "checks the program of agent, for 3.2 s");
  EXPECT_EQ(mainThreadsWork(busy(1.1, "evaluates", "a\033")), "evaluates a\\u001b, for 1.1 s");
  EXPECT_EQ(mainThreadsWork(busy(2)), "gives no answer, for 2.0 s");
  EXPECT_EQ(mainThreadsWork(busy(1, "evaluates", "agent")), "");
  EXPECT_EQ(mainThreadsWork(Dictionary()), "");
}

TEST(BusyReport, TheWorkOnAServiceIsReported) {
  const auto work = [](const char* word) {
    return workOnService(Dictionary{{kFactActivity, word}, {kFactActivityFor, 0.5}});
  };
  EXPECT_EQ(work("awaitsProcess"), "its process is waited for, for 0.5 s");
  EXPECT_EQ(work("isRemoved"), "its processes are ended, for 0.5 s");
  EXPECT_EQ(work("other"), "is busy, for 0.5 s");
  EXPECT_EQ(workOnService(Dictionary()), "");
}

TEST(BusyReport, ExtensionsThatCannotBeUsedAreNamed) {
  EXPECT_EQ(failedExtensions(Dictionary{{kFactFailedExtensions, Array{"wfk", "other"}}}),
            "wfk, other");
  EXPECT_EQ(failedExtensions(Dictionary()), "");
  EXPECT_EQ(failureOfExtension(
                Dictionary{{kFactKextFailedStep, "isRejected"}, {kFactKextFailedAgo, 1.0}}),
            "the last start has failed 1.0 s ago: its version is too old");
  EXPECT_EQ(failureOfExtension(
                Dictionary{{kFactKextFailedStep, "isUnchecked"}, {kFactKextFailedAgo, 1.0}}),
            "the last start has failed 1.0 s ago: its signature can't be checked now, and is "
            "checked again");
  EXPECT_EQ(failureOfExtension(Dictionary()), "");
}

}  // namespace
