#include "Platform/Linux/Files/AttributeCopy.h"

#include <array>
#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

TEST(AttributeCopyTest, AFileGetsTheAttributesOfAnother) {
  const TemporaryFolder folder;
  const UniqueFd from(::open(folder.write("from", "").c_str(), O_RDWR | O_CLOEXEC));
  const UniqueFd to(::open(folder.write("to", "").c_str(), O_RDWR | O_CLOEXEC));
  const std::string large(2000, 'x');
  if (::fsetxattr(from.get(), "user.note", large.data(), large.size(), 0) != 0) {
    GTEST_SKIP() << "no attributes here";
  }
  ASSERT_EQ(::fsetxattr(from.get(), "user.empty", "", 0, 0), 0);
  ASSERT_TRUE(copyExtendedAttributes(from.get(), to.get(), "to"));
  std::array<char, 4000> value;
  const ssize_t size = ::fgetxattr(to.get(), "user.note", value.data(), value.size());
  EXPECT_EQ(std::string(value.data(), static_cast<std::size_t>(size)), large);
  EXPECT_EQ(::fgetxattr(to.get(), "user.empty", value.data(), value.size()), 0);
}

TEST(AttributeCopyTest, AnAttributeThatCannotBeKeptIsAFailure) {
  const TemporaryFolder folder;
  const UniqueFd from(::open(folder.write("from", "").c_str(), O_RDWR | O_CLOEXEC));
  if (::fsetxattr(from.get(), "user.note", "x", 1, 0) != 0) GTEST_SKIP() << "no attributes here";
  const auto copied = copyExtendedAttributes(from.get(), -1, "some file");
  ASSERT_FALSE(copied);
  EXPECT_EQ(copied.error().context, "some file: its attribute user.note");
  EXPECT_EQ(copied.error().osError, EBADF);
}

}  // namespace
}  // namespace platform
