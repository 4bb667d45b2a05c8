#include "JobHost/State/StateRecord.h"

#include <string>

#include <gtest/gtest.h>

namespace jobhost {
namespace {

const std::string kBefore = "7 (a) b) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 ";

TEST(StateRecordTest, TheStartTimeIsTheFieldBehindTheName) {
  for (const char* rest : {"1902 20", "1902", "1902\n"}) {
    const std::string stat = kBefore + rest;
    EXPECT_EQ(startTicksIn(stat.data(), stat.size()), 1902) << rest;
  }
}

TEST(StateRecordTest, NoByteBehindTheTextCounts) {
  const std::string stat = kBefore + "1902";
  EXPECT_EQ(startTicksIn(stat.data(), stat.size() - 1), 190);
  EXPECT_EQ(startTicksIn(stat.data(), kBefore.size()), 0);
  EXPECT_EQ(startTicksIn(stat.data(), kBefore.size() - 1), 0);
  EXPECT_EQ(startTicksIn(stat.data(), 0), 0);
}

TEST(StateRecordTest, ATextWithoutANameHasNoStartTime) {
  const std::string stat = "7 a S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 1902";
  EXPECT_EQ(startTicksIn(stat.data(), stat.size()), 0);
}

}  // namespace
}  // namespace jobhost
