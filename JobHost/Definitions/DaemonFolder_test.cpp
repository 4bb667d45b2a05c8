#include "JobHost/Definitions/DaemonFolder.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Testing/Machine/FailingSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::size_t kMaximumFileBytes = std::size_t{4} << 20;

class DaemonFolderTest : public testing::Test {
 protected:
  static std::string plist(const std::string& label) {
    return "<plist version=\"1.0\"><dict><key>Label</key><string>" + label +
           "</string><key>Program</key><string>/bin/true</string></dict></plist>";
  }
  static std::string nameOf(std::size_t number) { return fmt::format("{:05}", number); }
  void add(std::size_t number) {
    root_.write("daemons/" + nameOf(number) + ".plist", plist(nameOf(number)));
  }
  DaemonFolder read() const { return readDaemonFolder(root_.path("daemons")); }
  void expectNothing(const testing::Matcher<std::string>& fault) const {
    const DaemonFolder folder = read();
    EXPECT_THAT(folder.definitions, IsEmpty());
    EXPECT_THAT(folder.faults, ElementsAre(fault));
  }

  platform::TemporaryFolder root_;
};

TEST_F(DaemonFolderTest, AMissingFolderCountsAsEmpty) {
  const DaemonFolder folder = read();
  EXPECT_THAT(folder.definitions, IsEmpty());
  EXPECT_THAT(folder.faults, IsEmpty());
}

TEST_F(DaemonFolderTest, TheFirstOfTooManyFilesAreLoaded) {
  // Made from the last to the first, because only the names count.
  for (std::size_t number = kMaximumDaemonFiles - 1; number > 0; --number) add(number);
  EXPECT_EQ(read().definitions.size(), kMaximumDaemonFiles - 1);
  add(0);
  DaemonFolder folder = read();
  EXPECT_EQ(folder.definitions.size(), kMaximumDaemonFiles);
  EXPECT_THAT(folder.faults, IsEmpty());

  add(kMaximumDaemonFiles);
  add(kMaximumDaemonFiles + 1);
  root_.write("daemons/00000.text", "not counted");
  folder = read();
  ASSERT_EQ(folder.definitions.size(), kMaximumDaemonFiles);
  EXPECT_EQ(folder.definitions.front().label, nameOf(0));
  EXPECT_EQ(folder.definitions.back().label, nameOf(kMaximumDaemonFiles - 1));
  EXPECT_THAT(folder.faults,
              ElementsAre(AllOf(HasSubstr("at most 4096 files, found 4098"),
                                HasSubstr("behind \"04095.plist\" are not loaded"))));
}

TEST_F(DaemonFolderTest, AFileIsReadUpToTheMaximumSize) {
  for (const std::size_t size : {kMaximumFileBytes - 1, kMaximumFileBytes, kMaximumFileBytes + 1}) {
    std::string contents = plist("a");
    contents.resize(size, '\n');
    root_.write("daemons/a.plist", contents);
    const DaemonFolder folder = read();
    const bool fits = size <= kMaximumFileBytes;
    EXPECT_EQ(folder.definitions.size(), fits ? 1 : 0) << size;
    ASSERT_EQ(folder.faults.size(), fits ? 0 : 1) << size;
    if (!fits) {
      EXPECT_THAT(folder.faults[0], AllOf(HasSubstr("a.plist"), HasSubstr("4194304")));
    }
  }
}

// A user who can write the folder could move a file of root's there, one written for another
// purpose.
TEST_F(DaemonFolderTest, AFolderThatOthersCanWriteIsNotRead) {
  add(0);
  const std::string path = root_.path("daemons");
  for (const mode_t mode : {0775, 0757, 0777, 01777}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    expectNothing(AllOf(HasSubstr(path + ": not trusted"),
                        HasSubstr(fmt::format("mode {:04o}", mode)), HasSubstr("chmod go-w")));
  }
  for (const mode_t mode : {0755, 0700}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    EXPECT_EQ(read().definitions.size(), 1) << mode;
  }
}

TEST_F(DaemonFolderTest, AFolderOfAnotherUserIsNotRead) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a folder away";
  add(0);
  const std::string path = root_.path("daemons");
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  expectNothing(AllOf(HasSubstr(path + ": not trusted"), HasSubstr("belongs to uid 12345")));
  ASSERT_EQ(::chown(path.c_str(), 0, 12345), 0);  // Its group can't write it.
  EXPECT_EQ(read().definitions.size(), 1);
}

TEST_F(DaemonFolderTest, AFolderThatCannotBeReadToItsEndIsAFault) {
  add(1);
  ASSERT_EQ(read().definitions.size(), 1u);
  platform::withFailingSystemCall(SYS_getdents64, EIO, [this] {
    expectNothing(AllOf(HasSubstr(root_.path("daemons")), HasSubstr(std::strerror(EIO))));
  });
}

TEST_F(DaemonFolderTest, AFolderBehindASymbolicLinkIsNotRead) {
  root_.write("elsewhere/a.plist", plist("a"));
  ASSERT_EQ(::symlink("elsewhere", root_.path("daemons").c_str()), 0);
  expectNothing(HasSubstr(root_.path("daemons") + ": is not a folder"));
}

TEST_F(DaemonFolderTest, AFileIsNoFolder) {
  root_.write("daemons", plist("a"));
  expectNothing(HasSubstr(root_.path("daemons") + ": is not a folder"));
}

TEST_F(DaemonFolderTest, AFileThatIsNotTrustedIsNotLoaded) {
  add(0);
  add(1);
  const std::string path = root_.path("daemons/00000.plist");
  const auto expectOther = [&](const std::string& why) {
    const DaemonFolder folder = read();
    ASSERT_EQ(folder.definitions.size(), 1);
    EXPECT_EQ(folder.definitions.front().label, nameOf(1));
    EXPECT_THAT(folder.faults,
                ElementsAre(AllOf(HasSubstr(path + ": not trusted"), HasSubstr(why))));
  };
  for (const mode_t mode : {0664, 0646}) {
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    expectOther("chmod go-w");
  }
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  EXPECT_EQ(read().definitions.size(), 2);
  if (::geteuid() != 0) return;
  ASSERT_EQ(::chown(path.c_str(), 12345, 0), 0);
  expectOther("belongs to uid 12345");
}

}  // namespace
}  // namespace jobhost
