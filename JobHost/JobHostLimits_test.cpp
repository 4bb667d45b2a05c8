// The host's behaviour when its state file is full.

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Data;
using platform::Dictionary;
using platform::Value;
using testing::HasSubstr;

class JobHostLimits : public JobHostTest {
 protected:
  static constexpr std::size_t kLargeBytes = 250'000;

  static Dictionary large(const std::string& label, char fill = 'x') {
    return job(label, {{"ThrottleInterval", 0}, {"Fill", Data(kLargeBytes, fill)}});
  }
  static std::string nameOf(int number) { return "com.example." + std::to_string(number); }

  // Submits large jobs until the next one is rejected. Returns their number.
  int fill() {
    for (int number = 0;; ++number) {
      const auto outcome = submit(large(nameOf(number)));
      if (outcome) continue;
      EXPECT_THAT(outcome.error().localizedDescription, HasSubstr("bytes in all"));
      EXPECT_THAT(outcome.error().localizedDescription, HasSubstr(nameOf(number)));
      return number;
    }
  }

  // The cost of a job, measured in a state file of its own.
  std::size_t costOf(const Dictionary& job) {
    auto state = StateFile::open(scratch_.path(), bootId_, loop_);
    EXPECT_TRUE(state);
    EXPECT_TRUE(state->file->compact({}));
    const auto bytes = state->file->appendSubmitted(JobOrigin::kSubmitted, job, SIZE_MAX);
    EXPECT_TRUE(bytes);
    return StateFile::costOf(*job["Label"].string(), *bytes);
  }

  std::size_t stateBytes() const {
    struct stat status{};
    EXPECT_EQ(::stat(root_.path("run/vantor/launchd.state").c_str(), &status), 0);
    return static_cast<std::size_t>(status.st_size);
  }

  platform::TemporaryFolder scratch_;
};

TEST_F(JobHostLimits, AHostFullOfJobsStillStartsReplacesAndRemovesThem) {
  const int count = fill();
  EXPECT_EQ(count, static_cast<int>(StateFile::kMaximumCost / kLargeBytes));
  restartHost();
  // All of these together take twice the space of the file.
  for (int i = 0; i < 40; ++i) {
    const auto replaced = submit(large(nameOf(0), static_cast<char>('a' + i)));
    ASSERT_TRUE(replaced) << i << ": " << replaced.error().localizedDescription;
    ASSERT_LE(stateBytes(), StateFile::kMaximumBytes);
  }
  for (int i = 0; i < 10'000; ++i) {
    endLast();
    loop_.advanceBy(1s);  // the longest pause
    ASSERT_EQ(starts(), static_cast<std::size_t>(count + i + 1));
  }
  EXPECT_LE(stateBytes(), StateFile::kMaximumBytes);
  restartHost();
  EXPECT_EQ(host_->labels().size(), static_cast<std::size_t>(count));
  EXPECT_EQ(starts(), static_cast<std::size_t>(count + 10'000));
  for (int number = 0; number < count; ++number) {
    ASSERT_TRUE(removeLater(nameOf(number))->value()) << number;
  }
  EXPECT_EQ(fill(), count);
}

TEST_F(JobHostLimits, TheMaximumCostIsAcceptedAndNotAByteMore) {
  const int count = fill();
  std::size_t left = StateFile::kMaximumCost;
  for (int number = 0; number < count; ++number) left -= costOf(large(nameOf(number)));
  const std::string label = "com.example.last";
  const auto ofBytes = [&](std::size_t bytes) { return job(label, {{"Fill", Data(bytes, 'x')}}); };
  // Measure at nearly that size: a larger property list has wider numbers in it.
  const std::size_t nearly = left - 500;
  const std::size_t frame = costOf(ofBytes(nearly)) - nearly;
  for (const std::size_t cost : {left - 1, left, left + 1}) {
    const Dictionary last = ofBytes(cost - frame);
    ASSERT_EQ(costOf(last), cost);
    EXPECT_EQ(submit(last).has_value(), cost <= left) << cost << " of " << left;
    if (cost <= left) {
      EXPECT_TRUE(removeLater(label)->value());
    }
  }
}

TEST_F(JobHostLimits, ARemovedOrReplacedJobMakesRoomForAnother) {
  const int count = fill();
  EXPECT_FALSE(submit(large("com.example.another")));
  ASSERT_TRUE(removeLater(nameOf(1))->value());
  ASSERT_TRUE(submit(large("com.example.another")));
  EXPECT_FALSE(submit(large(nameOf(count))));
  ASSERT_TRUE(submit(job(nameOf(2))));
  EXPECT_TRUE(submit(large(nameOf(count))));
}

}  // namespace
}  // namespace jobhost
