#include "Platform/Linux/Processes/ControlGroup.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kHybrid[] =
    "31 23 0:28 / /sys/fs/cgroup rw,relatime - tmpfs tmpfs rw,mode=755\n"
    "32 31 0:29 / /sys/fs/cgroup/cpu rw,relatime - cgroup cgroup rw,cpu\n"
    "41 31 0:38 / /sys/fs/cgroup/unified rw,relatime shared:9 - cgroup2 cgroup2 rw\n";

TEST(ControlGroupHierarchyTest, TheHierarchyOfVersionTwoIsFoundBesideOthers) {
  const auto found = ControlGroupHierarchy::find(kHybrid);
  ASSERT_TRUE(found) << describe(found.error());
  EXPECT_EQ(found->mountPoint, "/sys/fs/cgroup/unified");
  EXPECT_EQ(found->root, "/");
}

TEST(ControlGroupHierarchyTest, WithoutAWritableHierarchyTheReasonIsTold) {
  const auto refusal = [](const std::string& mountInfo) {
    const auto found = ControlGroupHierarchy::find(mountInfo);
    return found ? std::string() : describe(found.error());
  };
  EXPECT_THAT(refusal(""), HasSubstr("no hierarchy of control groups (v2) is mounted"));
  EXPECT_THAT(refusal("32 31 0:29 / /sys/fs/cgroup/cpu rw - cgroup cgroup rw,cpu\n"),
              HasSubstr("is mounted"));
  EXPECT_THAT(refusal("41 31 0:38 / /sys/fs/cgroup ro,nosuid - cgroup2 cgroup2 rw\n"),
              HasSubstr("is read-only"));
  EXPECT_THAT(refusal("41 31 0:38 / /sys/fs/cgroup rw,nosuid - cgroup2 cgroup2 ro\n"),
              HasSubstr("is read-only"));
  EXPECT_THAT(refusal("41 31 0:38 / /sys/fs/cgroup rw - cgroup2\n"), HasSubstr("is mounted"));
}

TEST(ControlGroupHierarchyTest, TheFolderOfAGroupDependsOnWhatIsMounted) {
  const ControlGroupHierarchy whole{"/sys/fs/cgroup", "/"};
  EXPECT_EQ(whole.folderOf("9:name=systemd:/\n0::/\n"), "/sys/fs/cgroup");
  EXPECT_EQ(whole.folderOf("0::/a.slice/b c.service\n"), "/sys/fs/cgroup/a.slice/b c.service");
  EXPECT_EQ(whole.folderOf("9:name=systemd:/a\n"), "");
  EXPECT_EQ(whole.folderOf("0::/../other\n"), "");
  const ControlGroupHierarchy part{"/sys/fs/cgroup", "/docker/1"};
  EXPECT_EQ(part.folderOf("0::/docker/1\n"), "/sys/fs/cgroup");
  EXPECT_EQ(part.folderOf("0::/docker/1/x\n"), "/sys/fs/cgroup/x");
  EXPECT_EQ(part.folderOf("0::/docker/12\n"), "");
}

TEST(ControlGroupHierarchyTest, SpacesInAMountPointAreUnescaped) {
  const auto found =
      ControlGroupHierarchy::find("41 31 0:38 / /a\\040b\\134 rw - cgroup2 cgroup2 rw\n");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->mountPoint, "/a b\\");
}

TEST(ControlGroupTest, OnlyControllersThatAreThereAreHandedDown) {
  const TemporaryFolder folder;
  const ControlGroup group(folder.path());
  EXPECT_FALSE(group.handControllersDown());
  folder.write("cgroup.controllers", "cpuset memory hugetlb\n");
  folder.write("cgroup.subtree_control", "");
  EXPECT_FALSE(group.handControllersDown());
  EXPECT_EQ(contentOfFile(folder.path("cgroup.subtree_control")), "+memory");
  folder.write("cgroup.controllers", "cpuset cpu\n");
  EXPECT_TRUE(group.handControllersDown());
  group.setWeight(20);
  folder.write("cpu.weight", "");
  group.setWeight(20);
  EXPECT_EQ(contentOfFile(folder.path("cpu.weight")), "20");
  folder.write("cgroup.controllers", "io\n");
  folder.write("io.weight", "");
  EXPECT_TRUE(group.handControllersDown());
  group.setWeight(500);
  EXPECT_EQ(contentOfFile(folder.path("io.weight")), "500");
}

TEST(ControlGroupTest, MemoryIsToldIfItIsCounted) {
  const TemporaryFolder folder;
  folder.write("cgroup.procs", "1\n");
  folder.write("cpu.stat", "usage_usec 1234\nuser_usec 1000\n");
  EXPECT_EQ(ControlGroup(folder.path()).use().memoryBytes, std::nullopt);
  folder.write("memory.current", "4096\n");
  const ControlGroup::Use use = ControlGroup(folder.path()).use();
  EXPECT_EQ(use.processes, 1u);
  EXPECT_EQ(use.cpuTime.count(), 1234);
  EXPECT_EQ(use.memoryBytes, 4096u);
}

// A group of the kernel, where this process can make one.
class RealControlGroup : public testing::Test {
 protected:
  void SetUp() override {
    const auto hierarchy = ControlGroupHierarchy::find();
    if (!hierarchy) GTEST_SKIP() << describe(hierarchy.error());
    const std::string own = hierarchy->folderOf(contentOfKernelFile("/proc/self/cgroup"));
    // Its name is unique also among tests in other pid namespaces.
    std::string folder = own + "/vantor-test-XXXXXX";
    if (!::mkdtemp(folder.data())) GTEST_SKIP() << describe(systemError("mkdtemp"));
    group_.emplace(folder);
    isMade_ = true;
    EXPECT_TRUE(group_->open());
  }
  void TearDown() override {
    if (!isMade_) return;
    EXPECT_TRUE(group_->kill());
    while (::wait(nullptr) > 0) continue;
    EXPECT_TRUE(group_->remove());
  }

  // A child in the group that waits for a signal.
  UniqueFd startMember(const std::string& below = "") {
    const std::string members = group_->folder() + below + "/cgroup.procs";
    const pid_t child = ::fork();
    if (child == 0) {
      for (;;) ::pause();
    }
    std::ofstream(members) << child << std::flush;
    return UniqueFd(::pidfd_open(child, 0));
  }
  static bool ends(const UniqueFd& process) {
    pollfd entry{process.get(), POLLIN, 0};
    return ::poll(&entry, 1, 60'000) == 1;
  }

  std::optional<ControlGroup> group_;
  bool isMade_ = false;
};

TEST_F(RealControlGroup, AKillEndsAllAlsoInGroupsBelow) {
  EXPECT_FALSE(group_->isPopulated());
  ASSERT_TRUE(ControlGroup(group_->folder() + "/below").open());
  const UniqueFd member = startMember();
  const UniqueFd below = startMember("/below");
  EXPECT_TRUE(group_->isPopulated());
  EXPECT_EQ(group_->processes().size(), 2u);
  EXPECT_EQ(group_->use().processes, 2u);
  EXPECT_FALSE(group_->remove());
  ASSERT_TRUE(group_->kill());
  EXPECT_TRUE(ends(member));
  EXPECT_TRUE(ends(below));
  EXPECT_THAT(group_->processes(), IsEmpty());
}

TEST_F(RealControlGroup, KernelsWithoutAKillFreezeFirst) {
  ASSERT_TRUE(ControlGroup(group_->folder() + "/below").open());
  const UniqueFd member = startMember();
  const UniqueFd below = startMember("/below");
  ASSERT_TRUE(group_->killByFreezing());
  EXPECT_TRUE(ends(member));
  EXPECT_TRUE(ends(below));
}

TEST_F(RealControlGroup, AMovedProcessIsInTheOtherGroup) {
  const ControlGroup other(group_->folder() + "/other");
  const ControlGroup one(group_->folder() + "/one");
  ASSERT_TRUE(other.open());
  ASSERT_TRUE(one.open());
  const UniqueFd member = startMember("/one");
  one.moveAllTo(other);
  EXPECT_THAT(one.processes(), IsEmpty());
  EXPECT_EQ(other.processes().size(), 1u);
  EXPECT_TRUE(one.remove());
}

TEST_F(RealControlGroup, AMissingGroupIsEmpty) {
  const ControlGroup missing(group_->folder() + "/missing");
  EXPECT_FALSE(missing.isPopulated());
  EXPECT_TRUE(missing.kill());
  EXPECT_TRUE(missing.remove());
  EXPECT_THAT(missing.processes(), IsEmpty());
  EXPECT_FALSE(ControlGroup(group_->folder() + "/a/b").open());
}

}  // namespace
}  // namespace platform
