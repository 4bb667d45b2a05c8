#include "Platform/Linux/SystemCalls/FolderNames.h"

#include <cerrno>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Platform/Testing/Machine/FailingSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

class FolderNamesTest : public testing::Test {
 protected:
  FolderNamesTest() {
    for (const char* name : {"c", "a", ".b"}) folder_.write(name, "");
  }
  std::string path() const { return folder_.path("."); }

  TemporaryFolder folder_;
};

TEST_F(FolderNamesTest, TheNamesAreInOrder) {
  EXPECT_THAT(namesInFolder(path(), 3).value(), ElementsAre(".b", "a", "c"));
  EXPECT_THAT(namesInFolder(path(), 1).value(), SizeIs(2));
}

TEST_F(FolderNamesTest, TheReaderMayStop) {
  int names = 0;
  EXPECT_TRUE(eachNameInFolder(path(), [&](std::string_view) { return ++names < 2; }));
  EXPECT_EQ(names, 2);
}

TEST_F(FolderNamesTest, AFailureIsNotTakenForTheEnd) {
  EXPECT_EQ(namesInFolder(folder_.path("none"), 3).error().osError, ENOENT);
  withFailingSystemCall(SYS_getdents64, EIO, [this] {
    const auto names = namesInFolder(path(), 3);
    ASSERT_FALSE(names);
    EXPECT_EQ(names.error().osError, EIO);
    EXPECT_EQ(names.error().context, path());
  });
}

TEST_F(FolderNamesTest, AnOpenFolderIsReadAndClosed) {
  UniqueFd folder(::open(path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int number = folder.get();
  std::set<std::string, std::less<>> names;
  EXPECT_TRUE(eachNameInFolder(std::move(folder), [&](std::string_view name) {
    EXPECT_GE(::fcntl(number, F_GETFD), 0);
    return names.emplace(name).second;
  }));
  EXPECT_THAT(names, ElementsAre(".b", "a", "c"));
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);
}

TEST_F(FolderNamesTest, AnotherFileThanAFolderIsAnError) {
  const auto read =
      eachNameInFolder(UniqueFd(::open((folder_.path("a")).c_str(), O_RDONLY | O_CLOEXEC)),
                       [](std::string_view) { return true; });
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().osError, ENOTDIR);
}

}  // namespace
}  // namespace platform
