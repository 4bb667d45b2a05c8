#include "Platform/Linux/Sockets/SocketBirths.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/ProtectedFiles.h"
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
  // Takes a name and leaves its socket as a killed process does.
  Result<void> takeAndLeaveName() {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto listen = [&](const std::string& at) -> Result<void> {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      at.copy(address.sun_path, sizeof(address.sun_path) - 1);
      const auto* name = reinterpret_cast<const sockaddr*>(&address);
      if (::bind(socket.get(), name, sizeof(address)) == 0 && ::listen(socket.get(), 1) == 0) {
        return {};
      }
      return std::unexpected(systemError("binding"));
    };
    const auto taken = SocketName::take(folder_.path("name"), {.mode = 0666}, listen);
    if (!taken) return std::unexpected(taken.error());
    return {};
  }

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

TEST_F(SocketBirthsTest, TheLeftoversOfAKilledProcessAreRemoved) {
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

// Names of another user's, in a folder that its group may write, with the files of former releases.
TEST_F(SocketBirthsTest, ProtectedFilesHoldNobodyUp) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  const auto protection = ProtectedFiles::turnOn();
  if (!protection) GTEST_SKIP() << "fs.protected_fifos and fs.protected_regular are not writable";
  constexpr uid_t kOwner = 65534;
  constexpr uid_t kMember = 65533;
  const auto give = [](const std::string& path, uid_t user, mode_t mode) {
    ASSERT_EQ(::chown(path.c_str(), user, kOwner), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  };
  give(folder_.path(), kOwner, 01775);
  give(folder_.write(".lock", ""), kMember, 0666);
  ASSERT_EQ(::mkfifo(folder_.path("pipe").c_str(), 0666), 0);
  give(folder_.path("pipe"), kMember, 0666);
  // The kernel refuses even root to open these as former releases did.
  for (const char* file : {".lock", "pipe"}) {
    const UniqueFd opened(::open(folder_.path(file).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_FALSE(opened) << file;
    EXPECT_EQ(errno, EACCES) << file;
  }
  // Root and the owner in turn, each with the leftover of the other.
  for (int turn = 0; turn < 2; ++turn) {
    const auto asRoot = takeAndLeaveName();
    EXPECT_TRUE(asRoot) << describe(asRoot.error());
    const AsOrdinaryUser owner;
    const auto asOwner = takeAndLeaveName();
    EXPECT_TRUE(asOwner) << describe(asOwner.error());
  }
}

}  // namespace
}  // namespace platform
