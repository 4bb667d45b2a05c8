#include "Platform/Linux/Files/FileProtection.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <linux/fsverity.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/CodeSigningBed_fixture.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

class FileProtectionTest : public testing::Test {
 protected:
  std::optional<CodeProtection> protection() { return bed_.signatures().protectionOf(path_); }

  CodeSigningBed bed_;
  const std::string path_ = bed_.makeFile("bin/program");
};

TEST_F(FileProtectionTest, AnOrdinaryFileIsOnlyComparedAgain) {
  EXPECT_EQ(protection(), CodeProtection::kRecheck);
}

TEST_F(FileProtectionTest, AMissingFileHasNone) {
  ASSERT_EQ(::unlink(path_.c_str()), 0);
  EXPECT_EQ(protection(), std::nullopt);
}

TEST_F(FileProtectionTest, AnImmutableFileIsFound) {
  const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  int attributes = 0;
  ASSERT_EQ(::ioctl(file.get(), FS_IOC_GETFLAGS, &attributes), 0);
  int immutable = attributes | FS_IMMUTABLE_FL;
  if (::ioctl(file.get(), FS_IOC_SETFLAGS, &immutable) != 0) {
    GTEST_SKIP() << "the attribute can't be set here: " << std::strerror(errno);
  }
  EXPECT_EQ(protection(), CodeProtection::kImmutable);
  EXPECT_EQ(::ioctl(file.get(), FS_IOC_SETFLAGS, &attributes), 0);
  EXPECT_EQ(protection(), CodeProtection::kRecheck);
}

TEST_F(FileProtectionTest, AFileUnderVerityIsFound) {
  const UniqueFd file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  fsverity_enable_arg enable{};
  enable.version = 1;
  enable.hash_algorithm = FS_VERITY_HASH_ALG_SHA256;
  enable.block_size = 4096;
  if (::ioctl(file.get(), FS_IOC_ENABLE_VERITY, &enable) != 0) {
    GTEST_SKIP() << "there is no fs-verity here: " << std::strerror(errno);
  }
  EXPECT_EQ(protection(), CodeProtection::kVerity);
  EXPECT_EQ(verityDigestOf(file.get()).size(), 32u);
}

}  // namespace
}  // namespace platform
