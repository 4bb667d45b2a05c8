#include "JobHost/DaemonFolder.h"

#include <string>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/TemporaryFolder.h"

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

  platform::TemporaryFolder root_;
};

TEST_F(DaemonFolderTest, AMissingFolderIsAnEmptyOne) {
  const DaemonFolder folder = read();
  EXPECT_THAT(folder.definitions, IsEmpty());
  EXPECT_THAT(folder.faults, IsEmpty());
}

TEST_F(DaemonFolderTest, OfTooManyFilesThoseWithTheFirstNamesAreLoaded) {
  // Made from the last to the first: it is their names that count.
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

TEST_F(DaemonFolderTest, AFileIsReadUpToItsLargestSize) {
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

}  // namespace
}  // namespace jobhost
