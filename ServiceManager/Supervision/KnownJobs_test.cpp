#include "ServiceManager/Supervision/KnownJobs.h"

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace platform;
using namespace std::chrono_literals;
using Presence = JobStatus::Presence;

class KnownJobsTest : public testing::Test {
 protected:
  static Dictionary state(int process, const JobHistory& history = {}) {
    Dictionary state{{kJobHistoryKey, valueOfHistory(history, JobHistoryDetail::kCountsAndEnds)}};
    if (process > 0) state.set(kJobProcessKey, process);
    return state;
  }
  KnownJob find(const char* label) const { return known_.table()->find(label); }
  Presence presence(const char* label) const { return find(label).status.presence; }

  KnownJobs known_;
};

TEST_F(KnownJobsTest, AJobIsUnknownUntilTheHostTellsOfIt) {
  EXPECT_EQ(presence("a"), Presence::kUnknown);
  EXPECT_TRUE(known_.update("a", state(7)));
  EXPECT_EQ(find("a").status.process, 7);
  EXPECT_TRUE(known_.update("a", Value()));
  EXPECT_EQ(presence("a"), Presence::kAbsent);
  EXPECT_EQ(presence("b"), Presence::kUnknown);
}

TEST_F(KnownJobsTest, AnAnswerWithoutNewsIsNoChange) {
  JobHistory history{WallTime(1000s), 2, 1, 1, {}};
  history.lastEnds.push_back({WallTime(1001s), 9, 3s});
  Dictionary copy = state(7, history);
  copy.set(kJobLastStatusKey, 9);
  copy.set(kJobProgramChangedKey, true);
  EXPECT_TRUE(known_.update("a", copy));
  EXPECT_FALSE(known_.update("a", copy));
  const KnownJob job = find("a");
  EXPECT_EQ(job.history, history);
  EXPECT_EQ(job.status.lastExitStatus, Value(9));
  EXPECT_TRUE(job.hasProgramChanged);
  EXPECT_FALSE(job.isLastExitStatusUnknown);
}

TEST_F(KnownJobsTest, WithoutAnAnswerTheLastOneCounts) {
  known_.update("a", state(7));
  EXPECT_FALSE(known_.update("a", Dictionary()));
  EXPECT_EQ(find("a").status.process, 7);
  EXPECT_FALSE(known_.update("b", Dictionary()));
  EXPECT_EQ(presence("b"), Presence::kUnknown);
}

TEST_F(KnownJobsTest, NobodyKnowsHowAProcessEndedBeforeTheHostTells) {
  Dictionary copy = state(7);
  copy.set(kJobLastStatusKey, 9);
  known_.update("a", copy);
  EXPECT_FALSE(known_.processEnded("a", 6));
  EXPECT_FALSE(known_.processEnded("b", 7));
  EXPECT_TRUE(known_.processEnded("a", 7));
  const KnownJob job = find("a");
  EXPECT_EQ(job.status.presence, Presence::kPresent);
  EXPECT_FALSE(job.status.process);
  EXPECT_TRUE(job.status.lastExitStatus.isNil());
  EXPECT_TRUE(job.isLastExitStatusUnknown);
}

TEST_F(KnownJobsTest, JobsThatNoPageHasAreAbsent) {
  for (const char* label : {"a", "c", "f"}) known_.update(label, state(1));
  EXPECT_TRUE(known_.updatePage("", {{"b", state(2)}, {"d", state(4)}}));
  EXPECT_EQ(presence("a"), Presence::kAbsent);
  EXPECT_EQ(find("b").status.process, 2);
  EXPECT_EQ(presence("c"), Presence::kAbsent);
  EXPECT_EQ(presence("e"), Presence::kUnknown);
  EXPECT_EQ(find("f").status.process, 1);
  EXPECT_TRUE(known_.updatePage("d", {}));
  EXPECT_EQ(find("d").status.process, 4);
  EXPECT_EQ(presence("e"), Presence::kAbsent);
  EXPECT_EQ(presence("f"), Presence::kAbsent);
  EXPECT_FALSE(known_.updatePage("d", {}));
}

TEST_F(KnownJobsTest, ACompleteTableForgetsAbsentJobs) {
  for (const char* label : {"a", "b", "c"}) known_.update(label, state(1));
  known_.update("c", Value());
  known_.updatePage("", {{"b", state(1)}});
  EXPECT_EQ(known_.table()->jobs.size(), 3u);  // "d" and later ones are still unknown.
  known_.updatePage("b", {});
  EXPECT_EQ(known_.table()->jobs.size(), 1u);
  EXPECT_EQ(presence("a"), Presence::kAbsent);
  EXPECT_EQ(presence("c"), Presence::kAbsent);
}

TEST_F(KnownJobsTest, APageKeepsTheLastEndsOfAJobThatHasNotEndedAgain) {
  JobHistory history{WallTime(1000s), 2, 1, 0, {}};
  JobHistory counts = history;
  history.lastEnds.push_back({WallTime(1001s), 9, 3s});
  known_.update("a", state(7, history));
  known_.updatePage("", {{"a", state(7, counts)}});
  EXPECT_EQ(find("a").history, history);
  counts.ends = 2;
  known_.updatePage("", {{"a", state(8, counts)}});
  EXPECT_EQ(find("a").history, counts);
}

TEST_F(KnownJobsTest, ATableDoesNotChange) {
  known_.update("a", state(7));
  const std::shared_ptr<const KnownJobTable> table = known_.table();
  EXPECT_EQ(known_.table(), table);
  known_.update("a", state(8));
  EXPECT_EQ(table->find("a").status.process, 7);
  EXPECT_EQ(find("a").status.process, 8);
}

}  // namespace
