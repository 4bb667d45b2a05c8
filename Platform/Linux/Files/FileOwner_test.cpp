#include "Platform/Files/FileOwner.h"

#include <cerrno>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

// The ids of the calling thread.
struct Rights {
  uid_t user = static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
  gid_t group = static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
  std::vector<gid_t> groups = [] {
    std::vector<gid_t> found(static_cast<std::size_t>(::getgroups(0, nullptr)));
    ::getgroups(static_cast<int>(found.size()), found.data());
    return found;
  }();

  bool operator==(const Rights&) const = default;
};

class FileOwnerTest : public testing::Test {
 protected:
  // Users that the system's list does not contain, by default.
  static constexpr uid_t kUser = 54321;
  static constexpr uid_t kAnother = 54322;
  static constexpr gid_t kNoGroup = 65534;
  static constexpr char kFile[] = "folder/file";

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root has other rights to take";
    home_.write(kFile, "");
  }
  void give(const std::string& path, uid_t user, gid_t group) {
    ASSERT_EQ(::lchown(path.c_str(), user, group), 0);
  }
  // The ids with which the action ran, if it did.
  std::optional<Rights> rightsOf(const std::string& file = kFile) {
    std::optional<Rights> found;
    const auto done = performAsOwnerOf(home_.path(), file, [&] { found.emplace(); });
    EXPECT_EQ(done.has_value(), found.has_value());
    error_ = done ? std::nullopt : std::optional(done.error());
    return found;
  }
  void expectDenied(const std::string& path) {
    EXPECT_EQ(rightsOf(), std::nullopt);
    ASSERT_TRUE(error_);
    EXPECT_EQ(error_->code, ErrorCode::kDenied);
    EXPECT_TRUE(error_->context.starts_with(path + ": ")) << error_->context;
  }

  TemporaryFolder home_;
  std::optional<Error> error_;
};

TEST_F(FileOwnerTest, TheThreadsGroupsAndUserAreRestored) {
  std::jthread([&] {
    const std::vector<gid_t> groups{3, 4};
    ASSERT_EQ(::syscall(SYS_setgroups, groups.size(), groups.data()), 0);
    const Rights before;
    ASSERT_EQ(before.groups, groups);
    give(home_.path(), kUser, 0);
    EXPECT_EQ(rightsOf(), (Rights{kUser, kNoGroup, {kNoGroup}}));
    EXPECT_EQ(Rights(), before);
  });
}

TEST_F(FileOwnerTest, OtherThreadsKeepTheirIds) {
  give(home_.path(), kUser, 0);
  const Rights before;
  std::promise<void> taken;
  std::promise<void> looked;
  std::jthread other([&] {
    EXPECT_TRUE(performAsOwnerOf(home_.path(), kFile, [&] {
      taken.set_value();
      looked.get_future().wait();
    }));
  });
  taken.get_future().wait();
  EXPECT_EQ(Rights(), before);
  looked.set_value();
}

TEST_F(FileOwnerTest, TheGroupOfTheHomeIsNotUsed) {
  constexpr gid_t kShadow = 42;
  give(home_.path(), kUser, kShadow);
  EXPECT_EQ(rightsOf(), (Rights{kUser, kNoGroup, {kNoGroup}}));
}

TEST_F(FileOwnerTest, TheUsersOwnGroupIsUsed) {
  const passwd* known = ::getpwnam("games");
  if (!known || known->pw_uid == 0) GTEST_SKIP() << "no such user in this system";
  const uid_t user = known->pw_uid;
  const gid_t group = known->pw_gid;
  give(home_.path(), user, 0);
  EXPECT_EQ(rightsOf(), (Rights{user, group, {group}}));
}

TEST_F(FileOwnerTest, AnyPartOfThePathCanNameTheUser) {
  for (const std::string& path : {home_.path(), home_.path("folder"), home_.path(kFile)}) {
    give(path, kUser, 0);
    EXPECT_EQ(rightsOf().value_or(Rights()).user, kUser) << path;
    give(path, 0, 0);
  }
  EXPECT_EQ(rightsOf(), Rights());  // It belongs to root alone.
}

TEST_F(FileOwnerTest, ALinkBelongsToItsMaker) {
  std::filesystem::create_symlink(kFile, home_.path("link"));
  give(home_.path("link"), kUser, 0);
  EXPECT_EQ(rightsOf("link").value_or(Rights()).user, kUser);
}

TEST_F(FileOwnerTest, APathOfSeveralUsersIsDenied) {
  give(home_.path(), kUser, 0);
  for (const std::string& path : {home_.path("folder"), home_.path(kFile)}) {
    give(path, kAnother, 0);
    expectDenied(path);
    give(path, 0, 0);
  }
  EXPECT_TRUE(rightsOf());
}

TEST_F(FileOwnerTest, OnlyTheFileItselfMayBeMissing) {
  EXPECT_TRUE(rightsOf("folder/missing"));
  EXPECT_FALSE(rightsOf("missing/file"));
  EXPECT_EQ(error_->code, ErrorCode::kNotFound);
  EXPECT_FALSE(rightsOf("folder/file/below"));
  EXPECT_EQ(error_->code, ErrorCode::kSystem);
  EXPECT_EQ(error_->osError, ENOTDIR);
  bool isDone = false;
  EXPECT_FALSE(performAsOwnerOf(home_.path("missing"), kFile, [&] { isDone = true; }));
  EXPECT_FALSE(isDone);
}

// Reduces the calling thread's capabilities for good.
void giveUp(std::vector<int> capabilities) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  ASSERT_EQ(::syscall(SYS_capget, &header, data), 0);
  for (const int capability : capabilities) data[0].effective &= ~(1u << capability);
  ASSERT_EQ(::syscall(SYS_capset, &header, data), 0);
}

TEST_F(FileOwnerTest, WithoutTheCapabilityNothingIsDone) {
  give(home_.path(), kUser, 0);
  for (const std::vector<int>& missing : {std::vector{CAP_SETUID}, {CAP_SETGID}}) {
    std::jthread([&] {
      const Rights before;
      giveUp(missing);
      expectDenied(home_.path());
      EXPECT_EQ(Rights(), before);
    });
  }
}

TEST(OpenWithoutWaiting, OpensOnlyFoldersAndFilesOfALimitedSize) {
  const TemporaryFolder folder;
  const std::string file = folder.write("file", "");
  const auto opens = [](const std::string& path, int flags) {
    const UniqueFd opened(openWithoutWaiting(path.c_str(), flags | O_CLOEXEC, 0600));
    return static_cast<bool>(opened);
  };
  for (const long long size : {0ll, kMostFileBytes - 1, kMostFileBytes}) {
    std::filesystem::resize_file(file, static_cast<std::uintmax_t>(size));
    EXPECT_TRUE(opens(file, O_RDWR)) << size;
  }
  EXPECT_TRUE(opens(folder.path(), O_RDONLY));
  EXPECT_TRUE(opens(folder.path("made"), O_RDWR | O_CREAT));
  const std::string pipe = folder.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  std::filesystem::resize_file(file, static_cast<std::uintmax_t>(kMostFileBytes + 1));
  for (const std::string& path : {file, pipe, std::string("/dev/zero")}) {
    errno = 0;
    EXPECT_FALSE(opens(path, O_RDWR)) << path;
    EXPECT_EQ(errno, EINVAL) << path;
  }
}

}  // namespace
}  // namespace platform
