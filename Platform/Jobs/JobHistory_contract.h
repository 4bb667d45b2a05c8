#pragma once

// The contract of Jobs: the history in a copy.

#include <csignal>

#include <gtest/gtest.h>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/JobsFixture_contract.h"

namespace platform {

TEST_P(JobsContract, ANewJobHasAHistoryOfOneStart) {
  submit(job(machine_->program()));
  EXPECT_TRUE(copy()["History"]["Since"].date());
  const auto history = jobHistoryIn(copy());
  ASSERT_TRUE(history);
  EXPECT_EQ(history->starts, 1);
  EXPECT_EQ(history->ends, 0);
  EXPECT_EQ(history->crashes, 0);
  EXPECT_TRUE(history->lastEnds.empty());
}

TEST_P(JobsContract, AKilledProcessIsCountedAsACrash) {
  submit(job(machine_->program()));
  machine_->kill(kLabel, process());
  const auto history = jobHistoryIn(copy());
  ASSERT_TRUE(history);
  EXPECT_EQ(history->starts, 1);
  EXPECT_EQ(history->ends, 1);
  EXPECT_EQ(history->crashes, 1);
  ASSERT_EQ(history->lastEnds.size(), 1u);
  EXPECT_EQ(history->lastEnds[0].waitStatus, SIGKILL);
  EXPECT_GE(history->lastEnds[0].at, history->since);
  EXPECT_GE(history->lastEnds[0].ran, Duration::zero());
}

TEST_P(JobsContract, TheHistoryOutlivesRemovalsWhichAreNoCrashes) {
  const Value unthrottled = job(machine_->program(), {{"ThrottleInterval", 0}});
  for (int i = 0; i < 12; ++i) {
    submit(unthrottled);
    EXPECT_TRUE(remove());
  }
  submit(unthrottled);
  const auto history = jobHistoryIn(copy());
  ASSERT_TRUE(history);
  EXPECT_EQ(history->starts, 13);
  EXPECT_EQ(history->ends, 12);
  EXPECT_EQ(history->crashes, 0);
  EXPECT_EQ(history->lastEnds.size(), JobHistory::kMaximumEnds);
}

TEST_P(JobsContract, ASubmittedHistoryIsIgnored) {
  submit(job(machine_->program(), {{"History", Dictionary{{"Starts", 7}}}}));
  const auto history = jobHistoryIn(copy());
  ASSERT_TRUE(history);
  EXPECT_EQ(history->starts, 1);
}

TEST_P(JobsContract, TheNextHostBeginsToCountAtZero) {
  submit(job(machine_->program()));
  machine_->stopHost();
  machine_->startHost();
  const auto history = jobHistoryIn(copy());
  ASSERT_TRUE(history);
  EXPECT_EQ(history->starts, 0);
  EXPECT_EQ(history->ends, 0);
}

}  // namespace platform
