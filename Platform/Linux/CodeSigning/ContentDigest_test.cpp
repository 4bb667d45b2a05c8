#include "Platform/Linux/CodeSigning/ContentDigest.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::HasSubstr;

UniqueFd openFile(const std::string& path) {
  UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_TRUE(file);
  return file;
}

// A short file shows which sizes are accepted without hashing that much: an accepted one turns out
// to have become shorter.
TEST(ContentDigest, OnlyFilesUpToTheLargestSizeAreHashed) {
  const TemporaryFolder folder;
  const UniqueFd file = openFile(folder.write("file", "short"));
  for (const std::uint64_t size : {kMaxCodeBytes - 1, kMaxCodeBytes}) {
    const auto begun = digestOfFile(file.get(), size, EVP_sha256(), "file");
    ASSERT_FALSE(begun);
    EXPECT_EQ(begun.error().status, kErrnoStatusBase + EAGAIN);
    EXPECT_THAT(begun.error().reason, HasSubstr("became shorter"));
  }
  const auto refused = digestOfFile(file.get(), kMaxCodeBytes + 1, EVP_sha256(), "file");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().status, kErrnoStatusBase + EFBIG);
  EXPECT_EQ(refused.error().reason, "file: is larger than the 4294967296 bytes that are checked");
}

// Offsets beyond 32 bits are not truncated.
TEST(ContentDigest, BytesBeyondFourGibibytesAreRead) {
  const TemporaryFolder folder;
  const UniqueFd file = openFile(folder.path("file"));
  const off_t start = static_cast<off_t>(kMaxCodeBytes) - 4;
  if (::pwrite(file.get(), "trailer", 7, start) != 7) GTEST_SKIP() << "no files of this size here";
  const auto bytes = readRange(file.get(), kMaxCodeBytes - 4, 7, "file");
  ASSERT_TRUE(bytes);
  EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "trailer");
  EXPECT_FALSE(readRange(file.get(), kMaxCodeBytes - 4, 8, "file"));
}

}  // namespace
}  // namespace platform
