#include "Platform/Linux/SystemCalls/DescriptorLimit.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace platform {
namespace {

TEST(DescriptorLimitTest, RaisesTheSoftLimitAndReturnsItsOldValue) {
  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  rlimit low = original;
  low.rlim_cur = 200;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);

  EXPECT_EQ(softDescriptorLimit(), 200U);
  EXPECT_EQ(raiseDescriptorLimit(), 200U);
  EXPECT_EQ(softDescriptorLimit(), original.rlim_max);
  rlimit raised{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &raised), 0);
  EXPECT_EQ(raised.rlim_cur, original.rlim_max);
  EXPECT_EQ(raised.rlim_max, original.rlim_max);
  EXPECT_EQ(raiseDescriptorLimit(), original.rlim_max);

  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
}

TEST(DescriptorLimitTest, TheLastDescriptorsAreTheReserve) {
  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  struct Row {
    rlim_t limit;
    int first;  // of the reserve
  };
  for (const Row& row : {Row{1000, 936}, Row{256, 192}, Row{100, 75}}) {
    rlimit low = original;
    low.rlim_cur = row.limit;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    EXPECT_FALSE(isOfDescriptorReserve(row.first - 1)) << row.limit;
    EXPECT_TRUE(isOfDescriptorReserve(row.first)) << row.limit;
  }
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
}

}  // namespace
}  // namespace platform
