#include "Tools/servicemanagerctl/TimeWords.h"

#include <chrono>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace platform;
using namespace std::chrono_literals;

TEST(TimeWordsTest, AnAgeHasItsLargestUnit) {
  EXPECT_EQ(ageInWords(-1s), "0 s");
  EXPECT_EQ(ageInWords(119s), "119 s");
  EXPECT_EQ(ageInWords(2min), "2 min");
  EXPECT_EQ(ageInWords(2h), "2 h");
  EXPECT_EQ(ageInWords(47h), "47 h");
  EXPECT_EQ(ageInWords(48h), "2 d");
}

TEST(TimeWordsTest, AProcesssStartFollowsFromItsTicks) {
  const std::string before = "7 (a ) b) S 1 7 7 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 ";
  const WallTime now{1000s};
  EXPECT_EQ(startInStat(before + "500 0", 800, 100, now), now - 3s);
  EXPECT_EQ(startInStat(before + "801 0", 800, 100, now), std::nullopt);
  EXPECT_EQ(startInStat(before, 800, 100, now), std::nullopt);
  EXPECT_EQ(startInStat("", 800, 100, now), std::nullopt);
}

TEST(TimeWordsTest, TheStartOfAProcessIsReadFromTheSystem) {
  const WallTime now{std::chrono::hours(1'000'000)};
  const auto started = startOfProcess(::getpid(), now);
  ASSERT_TRUE(started);
  EXPECT_LE(*started, now);
  EXPECT_EQ(startOfProcess(-5, now), std::nullopt);
}

}  // namespace
