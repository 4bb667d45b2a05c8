#include "JobHost/LastStarts.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Instant;

constexpr Instant kStart{1s};
constexpr Instant kUntil{11s};

// A job with this label that was started once.
class StartedJob {
 public:
  explicit StartedJob(std::string label) : label_(std::move(label)) {
    job_.key = &label_;
    job_.starts.last = kStart;
  }
  const Job& operator*() const { return job_; }

 private:
  const std::string label_;
  Job job_;
};

bool isLent(const LastStarts& starts, const std::string& label, Instant now) {
  Job job;
  job.key = &label;
  starts.lendTo(job, now);
  return job.starts.last == kStart;
}

TEST(LastStartsTest, AStartCountsUntilTheNextOneIsAllowed) {
  LastStarts starts;
  starts.keep(*StartedJob("a"), kUntil, kStart);
  EXPECT_TRUE(isLent(starts, "a", kUntil - 1ns));
  EXPECT_FALSE(isLent(starts, "a", kUntil));
  EXPECT_FALSE(isLent(starts, "b", kStart));
  starts.forget("a");
  EXPECT_FALSE(isLent(starts, "a", kStart));
}

TEST(LastStartsTest, AJobThatWasNeverStartedTakesNoPlace) {
  LastStarts starts;
  for (std::size_t i = 0; i < LastStarts::kMaximumLabels; ++i) {
    const std::string label = std::to_string(i);
    Job job;
    job.key = &label;
    starts.keep(job, kUntil, kStart);
  }
  starts.keep(*StartedJob("a"), kUntil, kStart);
  EXPECT_TRUE(isLent(starts, "a", kStart));
}

TEST(LastStartsTest, WhenFullItDropsEntriesAtTheirLastInstant) {
  LastStarts starts;
  for (std::size_t i = 0; i < LastStarts::kMaximumLabels; ++i) {
    starts.keep(*StartedJob(std::to_string(i)), kUntil, kStart);
  }
  starts.keep(*StartedJob("early"), kUntil + 1s, kUntil - 1ns);
  EXPECT_FALSE(isLent(starts, "early", kUntil - 1ns));
  EXPECT_TRUE(isLent(starts, "0", kUntil - 1ns));
  starts.keep(*StartedJob("late"), kUntil + 1s, kUntil);
  EXPECT_TRUE(isLent(starts, "late", kUntil));
}

}  // namespace
}  // namespace jobhost
