#include "JobHost/Processes/FileSystemIdentity.h"

#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace jobhost {
namespace {

using testing::EndsWith;

// The ids, groups and capabilities in a thread's "status" file.
std::map<std::string, std::string> rightsIn(std::ifstream& file) {
  std::map<std::string, std::string> rights;
  for (std::string line; std::getline(file, line);) {
    const std::string name = line.substr(0, line.find(':'));
    if (name == "Uid" || name == "Gid" || name == "Groups" || name.starts_with("Cap")) {
      rights[name] = line.substr(name.size() + 1);
    }
  }
  return rights;
}

std::map<std::string, std::string> ownRights() {
  std::ifstream file("/proc/thread-self/status");
  return rightsIn(file);
}

class FileSystemIdentityTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can take another account's rights";
  }

  const JobAccount account_{1234, 2345, {2345, 3456}, "a", "", ""};
};

TEST_F(FileSystemIdentityTest, HasTheAccountsRightsWhileItLives) {
  const auto before = ownRights();
  {
    const auto identity = FileSystemIdentity::assume(account_);
    ASSERT_TRUE(identity);
    auto during = ownRights();
    EXPECT_EQ(during["Uid"], "\t0\t0\t0\t1234");
    EXPECT_EQ(during["Gid"], "\t0\t0\t0\t2345");
    EXPECT_EQ(during["Groups"], "\t2345 3456 ");
    EXPECT_NE(during["CapEff"], before.at("CapEff"));  // without root's capabilities for files
  }
  EXPECT_EQ(ownRights(), before);
}

TEST_F(FileSystemIdentityTest, GivesTheGroupsOfBeforeBack) {
  std::thread([&] {
    const gid_t groups[] = {7, 8, 9};
    ASSERT_EQ(::syscall(SYS_setgroups, std::size(groups), groups), 0);  // of this thread alone
    {
      const auto identity = FileSystemIdentity::assume(account_);
      ASSERT_TRUE(identity);
      EXPECT_EQ(ownRights()["Groups"], "\t2345 3456 ");
    }
    EXPECT_EQ(ownRights()["Groups"], "\t7 8 9 ");
  }).join();
}

TEST_F(FileSystemIdentityTest, ConcernsThisThreadAlone) {
  const auto before = ownRights();
  std::thread other([&] {
    const auto identity = FileSystemIdentity::assume(account_);
    ASSERT_TRUE(identity);
    EXPECT_THAT(ownRights()["Uid"], EndsWith("\t1234"));
    std::ifstream main("/proc/self/task/" + std::to_string(::getpid()) + "/status");
    EXPECT_EQ(rightsIn(main), before);
  });
  other.join();
}

}  // namespace
}  // namespace jobhost
