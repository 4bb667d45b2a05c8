#include "Platform/Digests/FileDigest.h"

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Digests/FileSha256.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;

constexpr std::size_t kPiece = 256 * 1024;  // the size of one read

class FileDigestTest : public testing::Test {
 protected:
  static Result<std::optional<Sha256>> digestOf(const std::string& path) {
    return sha256OfFile(path);
  }
  static void expectRefused(const std::string& path, const char* why) {
    const auto digest = digestOf(path);
    ASSERT_FALSE(digest) << path;
    EXPECT_EQ(digest.error().code, ErrorCode::kInvalid) << path;
    EXPECT_THAT(digest.error().context, HasSubstr(path + ": " + why));
  }

  TemporaryFolder folder_;
};

TEST_F(FileDigestTest, CoversTheWholeContentInPiecesOfAnySize) {
  for (const std::size_t size : {std::size_t{1}, kPiece - 1, kPiece, kPiece + 1, 3 * kPiece}) {
    const std::string content(size, 'x');
    const Sha256 expected =
        CC_SHA256({reinterpret_cast<const std::uint8_t*>(content.data()), content.size()});
    const auto digest = digestOf(folder_.write("file", content));
    ASSERT_TRUE(digest && *digest) << size;
    EXPECT_EQ(**digest, expected) << size;
  }
}

class FileDigestLong : public FileDigestTest {};

// No count of bytes may be cut to 32 bits.
TEST_F(FileDigestLong, AFileOfMoreThanFourGibibytesIsHashedWhole) {
  const std::string path = folder_.write("large", "");
  // A sparse file takes no space.
  std::filesystem::resize_file(path, (std::uintmax_t{1} << 32) + 1);
  const auto digest = digestOf(path);
  ASSERT_TRUE(digest && *digest);
  EXPECT_EQ(hexadecimalText(**digest),
            "fbb82f7b353676bb562eb82157fcf0ea42c36492ca13ee56dbf82c08b6802c5c");
}

TEST_F(FileDigestTest, AnEmptyFileHasNoDigest) {
  const auto digest = digestOf(folder_.write("empty", ""));
  ASSERT_TRUE(digest);
  EXPECT_FALSE(*digest);
}

TEST_F(FileDigestTest, ALinkIsFollowedToItsFile) {
  folder_.write("file", "content");
  std::filesystem::create_symlink("file", folder_.path("link"));
  const auto digest = digestOf(folder_.path("link"));
  ASSERT_TRUE(digest && *digest);
  EXPECT_EQ(**digest, **digestOf(folder_.path("file")));
}

TEST_F(FileDigestTest, OtherKindsOfFilesAreRefusedUnopened) {
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path : {pipe, folder_.path(), std::string("/dev/zero")}) {
    expectRefused(path, "is not a regular file");
  }
  expectRefused("/proc/self/status", "is the kernel's");
  expectRefused("/sys/kernel/notes", "is the kernel's");  // The size that it reports is none.
}

TEST_F(FileDigestTest, AMissingFileIsNotFound) {
  for (const std::string& path : {folder_.path("missing"), folder_.write("file", "x") + "/below"}) {
    const auto digest = digestOf(path);
    ASSERT_FALSE(digest);
    EXPECT_EQ(digest.error().code, ErrorCode::kNotFound) << path;
  }
}

TEST_F(FileDigestTest, ReadingCanBePausedAndResumed) {
  const std::string path = folder_.write("file", std::string(3 * kPiece, 'x'));
  auto digest = FileDigest::open(path);
  ASSERT_TRUE(digest);
  EXPECT_EQ(digest->readMore(1), false);  // One piece.
  FileDigest moved = std::move(*digest);
  EXPECT_EQ(moved.readMore(kPiece), false);
  EXPECT_EQ(moved.readMore(kPiece), true);
  const auto sum = moved.finish();
  ASSERT_TRUE(sum && *sum);
  EXPECT_EQ(**sum, **digestOf(path));
}

TEST_F(FileDigestTest, AFileThatIsTruncatedMeanwhileHasNoDigest) {
  const std::string path = folder_.write("file", std::string(2 * kPiece, 'x'));
  auto digest = FileDigest::open(path);
  ASSERT_TRUE(digest);
  EXPECT_EQ(digest->readMore(kPiece), false);
  std::filesystem::resize_file(path, kPiece);
  const auto cutOff = digest->readMore(kPiece);
  ASSERT_FALSE(cutOff);
  EXPECT_EQ(cutOff.error().code, ErrorCode::kInvalid);
}

// Its owner can hide a file from nobody.
TEST_F(FileDigestTest, AFileUnderALeaseIsHashedWhenItIsReleased) {
  const std::string path = folder_.write("file", "content");
  const Sha256 expected = **digestOf(path);
  const UniqueFd holder(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  const auto before = std::signal(SIGIO, SIG_IGN);  // The kernel asks for the lease with it.
  ASSERT_EQ(::fcntl(holder.get(), F_SETLEASE, F_WRLCK), 0);
  auto digest = FileDigest::open(path);
  ASSERT_TRUE(digest) << describe(digest.error());
  EXPECT_EQ(digest->isReady(), false);
  EXPECT_EQ(digest->isReady(), false);
  ASSERT_EQ(::fcntl(holder.get(), F_SETLEASE, F_UNLCK), 0);
  EXPECT_EQ(digest->isReady(), true);
  EXPECT_EQ(digest->readMore(kPiece), true);
  EXPECT_EQ(**digest->finish(), expected);
  std::signal(SIGIO, before);
}

TEST_F(FileDigestTest, IgnoresDataAddedAfterOpening) {
  const std::string path = folder_.write("file", "content");
  const Sha256 before = **digestOf(path);
  auto digest = FileDigest::open(path);
  ASSERT_TRUE(digest);
  std::filesystem::resize_file(path, 2 * kPiece);
  EXPECT_EQ(digest->readMore(kPiece), true);
  EXPECT_EQ(**digest->finish(), before);
}

}  // namespace
}  // namespace platform
