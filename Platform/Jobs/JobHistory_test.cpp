#include "Platform/Jobs/JobHistory.h"

#include <chrono>
#include <csignal>
#include <limits>

#include <gtest/gtest.h>

#include "Platform/Jobs/Jobs.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

const WallTime kTime = std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) + 3h;

TEST(JobHistoryTest, AnEndThatNobodyAskedForIsACrashUnlessItSucceeded) {
  JobHistory history;
  history.add({kTime, 0, 1s}, false);
  history.add({kTime, std::nullopt, 1s}, false);
  history.add({kTime, SIGTERM, 1s}, true);
  EXPECT_EQ(history.ends, 3);
  EXPECT_EQ(history.crashes, 0);
  history.add({kTime, SIGTERM, 1s}, false);
  history.add({kTime, 1 << 8, 1s}, false);
  EXPECT_EQ(history.ends, 5);
  EXPECT_EQ(history.crashes, 2);
}

TEST(JobHistoryTest, TheLastTenEndsAreKept) {
  JobHistory history;
  for (int i = 0; i < 12; ++i) history.add({kTime + i * 1s, i, 1s}, false);
  ASSERT_EQ(history.lastEnds.size(), 10u);
  EXPECT_EQ(history.lastEnds.front().waitStatus, 2);
  EXPECT_EQ(history.lastEnds.back().waitStatus, 11);
}

TEST(JobHistoryTest, ItIsReadAsItWasWritten) {
  JobHistory history;
  history.since = kTime;
  history.starts = 3;
  history.add({kTime + 1s, SIGSEGV, 1500ms}, false);
  history.add({kTime + 2s, std::nullopt, 0s}, false);
  const Value copy =
      Dictionary{{kJobHistoryKey, valueOfHistory(history, JobHistoryDetail::kCountsAndEnds)}};
  EXPECT_EQ(jobHistoryIn(copy), history);
  const Value counts =
      Dictionary{{kJobHistoryKey, valueOfHistory(history, JobHistoryDetail::kCounts)}};
  history.lastEnds.clear();
  EXPECT_EQ(jobHistoryIn(counts), history);
}

TEST(JobHistoryTest, ImplausibleValuesAreNothing) {
  EXPECT_FALSE(jobHistoryIn(Value()));
  EXPECT_FALSE(jobHistoryIn(Dictionary{{kJobHistoryKey, "text"}}));
  const double infinite = std::numeric_limits<double>::infinity();
  const Value history =
      Dictionary{{kJobSinceKey, Date{infinite}},
                 {kJobStartsKey, "3"},
                 {kJobLastEndsKey, Array{1, Dictionary{{kJobRunTimeKey, infinite}}}}};
  const auto read = jobHistoryIn(Dictionary{{kJobHistoryKey, history}});
  ASSERT_TRUE(read);
  EXPECT_EQ(read->starts, 0);
  ASSERT_EQ(read->lastEnds.size(), 2u);
  EXPECT_EQ(read->lastEnds[1].ran, 0s);
}

}  // namespace
