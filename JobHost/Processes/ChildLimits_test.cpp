#include "JobHost/Processes/ChildLimits.h"

#include <gtest/gtest.h>

namespace jobhost {
namespace {

TEST(ChildLimitsTest, ACollectorGetsCoresOfEverySize) {
  EXPECT_EQ(softCoreLimit("|/lib/systemd/systemd-coredump %P %u"), RLIM_INFINITY);
  EXPECT_EQ(softCoreLimit("@/run/coredump.socket"), RLIM_INFINITY);
}

TEST(ChildLimitsTest, WithoutACollectorNoCoreIsWritten) {
  EXPECT_EQ(softCoreLimit("core"), 0u);
  EXPECT_EQ(softCoreLimit("/var/crash/core.%p"), 0u);
  EXPECT_EQ(softCoreLimit(""), 0u);
}

}  // namespace
}  // namespace jobhost
