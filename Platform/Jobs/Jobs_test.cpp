#include "Platform/Jobs/Jobs.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;
using Presence = JobStatus::Presence;

TEST(JobStatusIn, NoJobIsAbsent) {
  const JobStatus job = jobStatusIn(Value());
  EXPECT_EQ(job.presence, Presence::kAbsent);
  EXPECT_FALSE(job.process);
  EXPECT_TRUE(job.lastExitStatus.isNil());
}

TEST(JobStatusIn, AnEmptyCopyIsUnknownAndNotAbsent) {
  EXPECT_EQ(jobStatusIn(Dictionary()).presence, Presence::kUnknown);
}

TEST(JobStatusIn, ARunningJobHasItsProcess) {
  const JobStatus job = jobStatusIn(Dictionary{{"Label", "a"}, {"PID", 12}, {"LastExitStatus", 9}});
  EXPECT_EQ(job.presence, Presence::kPresent);
  EXPECT_EQ(job.process, 12);
  EXPECT_EQ(job.lastExitStatus, Value(9));
}

TEST(JobStatusIn, ANumberThatIsNoProcessIsNone) {
  for (const Value& number : {Value(0), Value(-1), Value(1LL << 31), Value("12"), Value()}) {
    const JobStatus job = jobStatusIn(Dictionary{{"Label", "a"}, {"PID", number}});
    EXPECT_EQ(job.presence, Presence::kPresent);
    EXPECT_FALSE(job.process);
  }
}

}  // namespace
