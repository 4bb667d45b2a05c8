#include "Platform/Linux/Sockets/SocketBirths.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

class SocketBirthsTest : public testing::Test {
 protected:
  Result<SocketBirths> enter() {
    return SocketBirths::enter(
        UniqueFd(::open(folder_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
        Duration::zero());
  }
  void expectDenied() {
    const auto births = enter();
    ASSERT_FALSE(births);
    EXPECT_EQ(births.error().code, ErrorCode::kDenied) << describe(births.error());
  }
  std::string path() const { return folder_.path(".births"); }

  TemporaryFolder folder_;
};

TEST_F(SocketBirthsTest, OnlyTheOwnerCanEnter) {
  ASSERT_TRUE(enter());
  struct stat status{};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0700u);
  EXPECT_EQ(status.st_uid, ::geteuid());
}

TEST_F(SocketBirthsTest, OneProcessAtATimeIsInside) {
  auto births = enter();
  ASSERT_TRUE(births);
  const auto second = enter();
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().osError, EWOULDBLOCK);
  const UniqueFd stillOpen = births->leave();
  EXPECT_TRUE(enter());
}

TEST_F(SocketBirthsTest, WhatAKilledProcessLeftIsRemoved) {
  ASSERT_TRUE(enter());
  std::ofstream(path() + "/socket-left") << "";
  ASSERT_TRUE(enter());
  EXPECT_TRUE(std::filesystem::is_empty(path()));
}

TEST_F(SocketBirthsTest, AFolderThatOthersMayEnterIsRefused) {
  for (const mode_t mode : {0755, 0710, 0701, 01777}) {
    std::filesystem::remove(path());
    ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
    ASSERT_EQ(::chmod(path().c_str(), mode), 0);
    expectDenied();
  }
}

TEST_F(SocketBirthsTest, AFolderOfAnotherUserIsRefused) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can make one";
  ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
  ASSERT_EQ(::chown(path().c_str(), 65534, 65534), 0);
  expectDenied();
}

TEST_F(SocketBirthsTest, RootMakesItForTheOwnerOfTheNames) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  ASSERT_EQ(::chown(folder_.path().c_str(), 65534, 65534), 0);
  ASSERT_TRUE(enter());
  struct stat status{};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 65534u);
}

// Each of these would hang a program that opens it, or lead it elsewhere.
TEST_F(SocketBirthsTest, AnotherFileInItsPlaceIsRefusedAtOnce) {
  ASSERT_EQ(::mkfifo(path().c_str(), 0666), 0);
  expectDenied();
  ASSERT_EQ(::unlink(path().c_str()), 0);
  ASSERT_EQ(::mkdir(folder_.path("elsewhere").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("elsewhere", path().c_str()), 0);
  expectDenied();
  ASSERT_EQ(::unlink(path().c_str()), 0);
  folder_.write(".births", "content");
  expectDenied();
}

// Files like those of former releases, in which anybody of a group could hold the lock.
TEST_F(SocketBirthsTest, OtherFilesInTheFolderOfNamesHoldNobodyUp) {
  ASSERT_EQ(::mkfifo(folder_.path(".lock").c_str(), 0666), 0);
  ASSERT_EQ(::mkfifo(folder_.path("name.fifo").c_str(), 0666), 0);
  const auto bind = [](const std::string& path) -> Result<void> {
    const UniqueFd file(::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    return {};
  };
  EXPECT_TRUE(SocketName::take(folder_.path("name"), {}, bind));
  const auto taken = SocketName::take(folder_.path("name.fifo"), {}, bind);
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code, ErrorCode::kInvalid);
}

}  // namespace
}  // namespace platform
