#include "ServiceManager/Catalogue/PathComponents.h"

#include <gtest/gtest.h>

namespace {

TEST(PathComponents, PathsAreJoinedWithOneSeparator) {
  EXPECT_EQ(pathByAppendingComponent("/opt/app", "bin/agent"), "/opt/app/bin/agent");
  EXPECT_EQ(pathByAppendingComponent("/opt/app/", "bin/agent"), "/opt/app/bin/agent");
  EXPECT_EQ(pathByAppendingComponent("/opt/app", "/bin/agent"), "/opt/app/bin/agent");
  EXPECT_EQ(pathByAppendingComponent("/opt/app//", "//bin/agent"), "/opt/app/bin/agent");
  EXPECT_EQ(pathByAppendingComponent("/", "agent"), "/agent");
}

TEST(PathComponents, AnEmptyPathAddsNothing) {
  EXPECT_EQ(pathByAppendingComponent("", "bin/agent"), "bin/agent");
}

}  // namespace
