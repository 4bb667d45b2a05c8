#include "Platform/Linux/Files/RegularFile.h"

#include <cerrno>
#include <csignal>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class RegularFileTest : public testing::Test {
 protected:
  TemporaryFolder folder_;
};

TEST_F(RegularFileTest, ARegularFileIsOpenedAndReadWhole) {
  for (const std::size_t size : {0, 1, 4095, 4096, 4097, 100'000}) {
    const std::string content(size, 'x');
    const std::string path = folder_.write("file", content);
    const auto file = openRegularFile(path);
    ASSERT_TRUE(file) << file.error().context;
    EXPECT_EQ(readToEnd(file->get(), 200'000, path), content);
  }
}

TEST_F(RegularFileTest, TheLimitCountsTheBytesReadNotTheReportedSize) {
  const std::string path = folder_.write("file", std::string(5000, 'x'));
  EXPECT_TRUE(readToEnd(openRegularFile(path)->get(), 5000, path));
  const auto tooLarge = readToEnd(openRegularFile(path)->get(), 4999, path);
  ASSERT_FALSE(tooLarge);
  EXPECT_EQ(tooLarge.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(tooLarge.error().context, path + ": is larger than 4999 bytes");

  // The reported size of such a file is 0.
  EXPECT_FALSE(readToEnd(openRegularFile("/proc/self/maps")->get(), 10, "maps"));
}

TEST_F(RegularFileTest, TheBeginningAloneCanBeRead) {
  const std::string path = folder_.write("file", "0123456789");
  EXPECT_EQ(readAtMost(openRegularFile(path)->get(), 0, path), "");
  EXPECT_EQ(readAtMost(openRegularFile(path)->get(), 9, path), "012345678");
  EXPECT_EQ(readAtMost(openRegularFile(path)->get(), 10, path), "0123456789");
  EXPECT_EQ(readAtMost(openRegularFile(path)->get(), 11, path), "0123456789");
}

TEST_F(RegularFileTest, AMissingFileIsNotFound) {
  folder_.write("file", "");
  for (const char* name : {"missing", "missing/below", "file/below"}) {
    const auto file = openRegularFile(folder_.path(name));
    ASSERT_FALSE(file) << name;
    EXPECT_EQ(file.error().code, ErrorCode::kNotFound) << name;
  }
}

TEST_F(RegularFileTest, ASymbolicLinkToARegularFileIsRefused) {
  const std::string target = folder_.write("file", "x");
  const std::string link = folder_.path("link");
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
  const auto file = openRegularFile(link);
  ASSERT_FALSE(file);
  EXPECT_EQ(file.error().code, ErrorCode::kInvalid);
  EXPECT_THAT(file.error().context, StartsWith(link + ": is a symbolic link"));
}

TEST_F(RegularFileTest, ALinkCanBeFollowed) {
  folder_.write("file", "x");
  ASSERT_EQ(::symlink("file", folder_.path("link").c_str()), 0);
  const auto file = openRegularFile(folder_.path("link"), FinalLink::kFollow);
  ASSERT_TRUE(file) << describe(file.error());
  EXPECT_EQ(file->status.st_size, 1);
  EXPECT_EQ(readToEnd(file->get(), 10, "file"), "x");
}

TEST_F(RegularFileTest, TheFileThatWasFoundIsOpened) {
  const std::string path = folder_.write("file", "old");
  const auto found = findFile(path, FinalLink::kRefuse);
  ASSERT_TRUE(found);
  ASSERT_EQ(::rename(folder_.write("new", "new").c_str(), path.c_str()), 0);
  EXPECT_EQ(readToEnd(openFoundFile(*found, path)->get(), 10, path), "old");
}

// The kernel also breaks the lease then, which takes some time.
TEST_F(RegularFileTest, AFileUnderALeaseIsOpenedWhenItIsReleased) {
  const std::string path = folder_.write("file", "x");
  const UniqueFd holder(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  const auto before = std::signal(SIGIO, SIG_IGN);  // The kernel asks for the lease with it.
  ASSERT_EQ(::fcntl(holder.get(), F_SETLEASE, F_WRLCK), 0);
  const auto held = openRegularFile(path);
  ASSERT_FALSE(held);
  EXPECT_TRUE(isHeldByALease(held.error())) << describe(held.error());
  ASSERT_EQ(::fcntl(holder.get(), F_SETLEASE, F_UNLCK), 0);
  EXPECT_TRUE(openRegularFile(path));
  std::signal(SIGIO, before);
}

TEST_F(RegularFileTest, OtherKindsOfFilesAreRefusedWithoutBlocking) {
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const std::string socket = folder_.path("socket");
  ASSERT_EQ(::mknod(socket.c_str(), S_IFSOCK | 0600, 0), 0);
  for (const std::string& path : {pipe, folder_.path(), socket, std::string("/dev/null")}) {
    const auto file = openRegularFile(path);
    ASSERT_FALSE(file) << path;
    EXPECT_EQ(file.error().code, ErrorCode::kInvalid) << path;
    EXPECT_THAT(file.error().context, HasSubstr("is not a regular file")) << path;
  }
}

TEST_F(RegularFileTest, AReadThatFailsNamesTheFile) {
  const auto bytes = readToEnd(-1, 10, "some file");
  ASSERT_FALSE(bytes);
  EXPECT_EQ(bytes.error().osError, EBADF);
  EXPECT_EQ(bytes.error().context, "some file");
}

}  // namespace
}  // namespace platform
