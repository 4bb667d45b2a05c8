#include "Platform/Linux/Files/LinuxFileManager.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Files/FileManager_contract.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Machine/TestStream.h"

namespace platform {
namespace {

struct stat statusOf(const std::string& path) {
  struct stat status{};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status;
}

class RealFiles final : public FileManagerHarness {
 public:
  FileManager& manager() override { return manager_; }
  std::string folder() override { return folder_.path(); }
  void writeFile(const std::string& path, std::string_view content,
                 std::int64_t permissions) override {
    std::ofstream(path, std::ios::binary) << content;
    EXPECT_EQ(::chmod(path.c_str(), static_cast<mode_t>(permissions)), 0);
    const timespec times[] = {{1'577'836'800, 5}, {1'577'836'801, 7}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  std::optional<std::string> readFile(const std::string& path) override {
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  bool isFolder(const std::string& path) override { return std::filesystem::is_directory(path); }
  std::int64_t permissions(const std::string& path) override {
    return statusOf(path).st_mode & 07777;
  }
  bool haveSameDate(const std::string& one, const std::string& other) override {
    const timespec a = statusOf(one).st_mtim;
    const timespec b = statusOf(other).st_mtim;
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
  }

 private:
  TemporaryFolder folder_;
  LinuxFileManager manager_{"/home"};
};

std::unique_ptr<FileManagerHarness> makeRealFiles() { return std::make_unique<RealFiles>(); }

INSTANTIATE_TEST_SUITE_P(Linux, FileManagerContract, testing::Values(&makeRealFiles));

class LinuxFileManagerTest : public testing::Test {
 protected:
  std::string path(std::string_view below) const { return folder_.path(below); }

  std::int64_t copyCode(const std::string& source, const std::string& destination) {
    const auto copied = manager_.overwriteWithCopy(source, destination);
    return copied ? 0 : copied.error().code;
  }

  TemporaryFolder folder_;
  LinuxFileManager manager_{"/home"};
};

// Files of a user other than root. The thread's other permissions stay.
class OtherUser {
 public:
  OtherUser() : before_(::setfsuid(65534)) {}
  ~OtherUser() { ::setfsuid(static_cast<uid_t>(before_)); }

 private:
  int before_;
};

TEST_F(LinuxFileManagerTest, ThePathMayContainDotsSlashesAndLinks) {
  ASSERT_EQ(::mkdir(path("real").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("real", path("link").c_str()), 0);
  EXPECT_TRUE(manager_.createDirectory(path("link//a/./b/../c/"), nullptr));
  EXPECT_TRUE(std::filesystem::is_directory(path("real/a/c")));
  // A dangling link is not a folder.
  ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);
  EXPECT_FALSE(manager_.createDirectory(path("dangling"), nullptr));
  EXPECT_FALSE(manager_.createDirectory(path(std::string(300, 'x')), nullptr));
}

TEST_F(LinuxFileManagerTest, WithoutAttributesTheUmaskApplies) {
  const mode_t before = ::umask(027);
  EXPECT_TRUE(manager_.createDirectory(path("a"), nullptr));
  const Dictionary attributes{{NSFilePosixPermissions, 0777}};
  EXPECT_TRUE(manager_.createDirectory(path("b"), &attributes));
  ::umask(before);
  EXPECT_EQ(statusOf(path("a")).st_mode & 07777, 0750u);
  EXPECT_EQ(statusOf(path("b")).st_mode & 07777, 0777u);
}

TEST_F(LinuxFileManagerTest, EachFolderMadeGetsOwnerAndGroup) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give folders away";
  const Dictionary attributes{
      {NSFileOwnerAccountID, 12}, {NSFileGroupOwnerAccountID, 80}, {NSFilePosixPermissions, 0755}};
  EXPECT_TRUE(manager_.createDirectory(path("a/b"), &attributes));
  for (const char* made : {"a", "a/b"}) {
    EXPECT_EQ(statusOf(path(made)).st_uid, 12u);
    EXPECT_EQ(statusOf(path(made)).st_gid, 80u);
    EXPECT_EQ(statusOf(path(made)).st_mode & 07777, 0755u);
  }
}

TEST_F(LinuxFileManagerTest, ImpossibleAttributesAreRefusedBeforeAnythingIsMade) {
  const Dictionary wrong[] = {{{NSFilePosixPermissions, 010000}},
                              {{NSFilePosixPermissions, -1}},
                              {{NSFilePosixPermissions, "755"}},
                              {{NSFileOwnerAccountID, -1}},
                              {{NSFileOwnerAccountID, std::int64_t{4294967295}}},
                              {{NSFileGroupOwnerAccountID, true}}};
  for (const Dictionary& attributes : wrong) {
    const auto made = manager_.createDirectory(path("a/b"), &attributes);
    ASSERT_FALSE(made);
    EXPECT_EQ(made.error().code, 512);
    EXPECT_THAT(made.error().localizedDescription, testing::HasSubstr(attributes.begin()->first));
    EXPECT_FALSE(std::filesystem::exists(path("a")));
  }
  const Dictionary most{{NSFilePosixPermissions, 07777}};
  EXPECT_TRUE(manager_.createDirectory(path("a"), &most));
}

TEST_F(LinuxFileManagerTest, AFailedCallRemovesTheFoldersItMade) {
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  const Dictionary attributes{{NSFileOwnerAccountID, 0}, {NSFilePosixPermissions, 0755}};
  {
    // Only root can give a folder to root.
    const OtherUser other;
    const bool isRoot = ::geteuid() == 0;
    const auto made = manager_.createDirectory(path("a/b/c"), &attributes);
    if (!isRoot || !made) {
      ASSERT_FALSE(made);
      EXPECT_EQ(made.error().code, 513);
    }
  }
  // The name that is too long comes last.
  EXPECT_FALSE(manager_.createDirectory(path("x/y/" + std::string(300, 'z')), nullptr));
  EXPECT_FALSE(std::filesystem::exists(path("x")));
}

TEST_F(LinuxFileManagerTest, AnUnreadableOrUnwritableFileIsDenied) {
  folder_.write("closed/file", "x");
  folder_.write("source", "x");
  ASSERT_EQ(::chmod(path("closed").c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0755), 0);
  {
    const OtherUser other;
    const auto listed =
        manager_.eachNameInDirectory(path("closed"), [](std::string_view) { return true; });
    ASSERT_FALSE(listed);
    EXPECT_EQ(listed.error().code, 257);
    EXPECT_EQ(copyCode(path("closed/file"), path("copy")), 257);
    if (::geteuid() == 0) {
      EXPECT_EQ(copyCode(path("source"), path("copy")), 513);
      const auto made = manager_.createDirectory(path("new"), nullptr);
      ASSERT_FALSE(made);
      EXPECT_EQ(made.error().code, 513);
    }
  }
  ASSERT_EQ(::chmod(path("closed").c_str(), 0700), 0);
}

TEST_F(LinuxFileManagerTest, OnlyRegularFilesAreCopiedAndNothingBlocks) {
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  for (const std::string& source : {path("pipe"), std::string("/dev/zero"), folder_.path()}) {
    EXPECT_EQ(copyCode(source, path("copy")), 256) << source;
  }
  EXPECT_FALSE(std::filesystem::exists(path("copy")));
}

TEST_F(LinuxFileManagerTest, AFileWithoutAReportedSizeIsCopiedWhole) {
  const std::string destination = folder_.write("copy", "old");
  const auto copied = manager_.overwriteWithCopy("/proc/version", destination);
  ASSERT_TRUE(copied) << copied.error().localizedDescription;
  EXPECT_EQ(contentOfFile(destination), contentOfFile("/proc/version"));
}

// The file has no end that could be reached, and its reported size is 0.
TEST_F(LinuxFileManagerTest, AFileOfUnreportedSizeIsNeverCut) {
  const std::string destination = folder_.path("copy");
  const auto copied = manager_.overwriteWithCopy("/proc/self/pagemap", destination);
  ASSERT_FALSE(copied);
  EXPECT_EQ(copied.error().code, NSFileReadUnknownError);
  EXPECT_EQ(copied.error().localizedDescription,
            "/proc/self/pagemap: is larger than 16777216 bytes");
  EXPECT_FALSE(std::filesystem::exists(destination));
}

TEST_F(LinuxFileManagerTest, ASourceLinkIsFollowedAndADestinationLinkReplaced) {
  folder_.write("file", "content");
  folder_.write("kept", "kept");
  ASSERT_EQ(::symlink("file", path("source").c_str()), 0);
  ASSERT_EQ(::symlink("kept", path("destination").c_str()), 0);
  ASSERT_EQ(::chmod(path("file").c_str(), 0604), 0);
  EXPECT_EQ(copyCode(path("source"), path("destination")), 0);
  EXPECT_FALSE(std::filesystem::is_symlink(path("destination")));
  EXPECT_EQ(statusOf(path("destination")).st_mode & 07777, 0604u);
  EXPECT_EQ(statusOf(path("kept")).st_size, 4);
}

TEST_F(LinuxFileManagerTest, OwnerGroupSetUserIdAndTimesAreCopied) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  folder_.write("source", "content");
  ASSERT_EQ(::chown(path("source").c_str(), 12, 80), 0);
  ASSERT_EQ(::chmod(path("source").c_str(), 06755), 0);
  const timespec times[] = {{1000, 1}, {2000, 2}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path("source").c_str(), times, 0), 0);
  EXPECT_EQ(copyCode(path("source"), path("copy")), 0);
  const struct stat copy = statusOf(path("copy"));
  EXPECT_EQ(copy.st_uid, 12u);
  EXPECT_EQ(copy.st_gid, 80u);
  EXPECT_EQ(copy.st_mode & 07777, 06755u);
  EXPECT_EQ(copy.st_mtim.tv_sec, 2000);
  EXPECT_EQ(copy.st_mtim.tv_nsec, 2);
}

TEST_F(LinuxFileManagerTest, AFailureToSetTheOwnerKeepsTheCopy) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs files of two users";
  folder_.write("source", "content");
  ASSERT_EQ(::chmod(path("source").c_str(), 0644), 0);
  ASSERT_EQ(::chmod(folder_.path().c_str(), 0777), 0);
  {
    const OtherUser other;
    EXPECT_EQ(copyCode(path("source"), path("copy")), 513);
  }
  EXPECT_EQ(statusOf(path("copy")).st_size, 7);
  EXPECT_EQ(statusOf(path("copy")).st_mode & 07777, 0600u);
}

TEST_F(LinuxFileManagerTest, NoCallLeavesADescriptorOpen) {
  folder_.write("source", "content");
  const std::size_t before = openDescriptors();
  EXPECT_EQ(copyCode(path("source"), path("copy")), 0);
  EXPECT_NE(copyCode(path("missing"), path("copy")), 0);
  EXPECT_NE(copyCode(folder_.path(), path("copy")), 0);
  EXPECT_NE(copyCode(path("source"), path("missing/copy")), 0);
  EXPECT_TRUE(manager_.eachNameInDirectory(folder_.path(), [](std::string_view) { return false; }));
  const Dictionary attributes{{NSFilePosixPermissions, 0700}};
  EXPECT_TRUE(manager_.createDirectory(path("a/b"), &attributes));
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace platform
