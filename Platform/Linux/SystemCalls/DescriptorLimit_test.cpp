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

}  // namespace
}  // namespace platform
