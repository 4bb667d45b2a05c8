#include "JobHost/JobHistories.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

namespace jobhost {
namespace {

using namespace std::chrono_literals;

const platform::WallTime kNow = std::chrono::sys_days(std::chrono::year(2026) / 1 / 2);

void addAndRemove(JobHistories& histories, const std::string& label) {
  histories.addJob(label, kNow);
  ++histories.of(label).starts;
  histories.removeJob(label);
}

TEST(JobHistoriesTest, AHistoryContinuesWhenTheJobIsBack) {
  JobHistories histories;
  addAndRemove(histories, "a");
  histories.addJob("a", kNow + 1h);
  EXPECT_EQ(histories.of("a").starts, 1);
  EXPECT_EQ(histories.of("a").since, kNow);
}

TEST(JobHistoriesTest, AJobThatNeverHadAProcessLeavesNone) {
  JobHistories histories;
  histories.addJob("a", kNow);
  histories.removeJob("a");
  EXPECT_EQ(histories.size(), 0u);
}

TEST(JobHistoriesTest, TheLongestUnusedIsDroppedFirst) {
  JobHistories histories;
  histories.addJob("used", kNow);
  addAndRemove(histories, "first");
  addAndRemove(histories, "second");
  for (std::size_t i = 2; i < JobHistories::kMaximumUnused; ++i) {
    addAndRemove(histories, std::to_string(i));
  }
  addAndRemove(histories, "first");  // used again
  EXPECT_EQ(histories.size(), JobHistories::kMaximumUnused + 1);
  addAndRemove(histories, "last");
  EXPECT_EQ(histories.size(), JobHistories::kMaximumUnused + 1);
  histories.addJob("first", kNow);
  EXPECT_EQ(histories.of("first").starts, 2);
  histories.addJob("second", kNow);
  EXPECT_EQ(histories.of("second").starts, 0);
}

}  // namespace
}  // namespace jobhost
