#include "JobHost/Processes/JobGroups.h"

#include <optional>
#include <string>

#include <gtest/gtest.h>

namespace jobhost {
namespace {

using platform::ControlGroup;

TEST(JobGroupsTest, TheNameOfAGroupTellsItsLabel) {
  const std::string folder = "/sys/fs/cgroup/vantor-0/job-";
  EXPECT_EQ(JobGroups::labelOf(ControlGroup(folder + "com.example.a_b-C9")), "com.example.a_b-C9");
  EXPECT_EQ(JobGroups::labelOf(ControlGroup(folder + "a%2fb%20c%ff")), "a/b c\xff");
  // These are no escapes.
  EXPECT_EQ(JobGroups::labelOf(ControlGroup(folder + "a%2")), "a%2");
  EXPECT_EQ(JobGroups::labelOf(ControlGroup(folder + "a%zz")), "a%zz");
}

TEST(JobGroupsTest, AJobHasAGroupOfEachKind) {
  const std::string folder = "/sys/fs/cgroup/vantor-0/";
  for (const char* kind : {"job-", "abandons-"}) {
    EXPECT_TRUE(JobGroups::isOf(ControlGroup(folder + kind + "com.example.a"), "com.example.a"));
    EXPECT_FALSE(JobGroups::isOf(ControlGroup(folder + kind + "com.example.b"), "com.example.a"));
  }
  EXPECT_FALSE(JobGroups::isOf(ControlGroup(folder + "com.example.a"), "com.example.a"));
}

TEST(JobGroupsTest, AShortenedNameTellsNoLabel) {
  EXPECT_EQ(JobGroups::labelOf(ControlGroup("/sys/fs/cgroup/job-com.example~0123456789abcdef")),
            std::nullopt);
}

}  // namespace
}  // namespace jobhost
