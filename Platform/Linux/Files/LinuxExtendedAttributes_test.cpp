#include "Platform/Linux/Files/LinuxExtendedAttributes.h"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

constexpr std::size_t kRoom = 4096;
constexpr char kQuarantine[] = "com.apple.quarantine";
constexpr char kOrigin[] = "user.xdg.origin.url";

std::string user(std::string_view name) { return "user." + std::string(name); }

class LinuxExtendedAttributesTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::setxattr(file_.c_str(), "user.test", "", 0, 0) != 0 && errno == ENOTSUP) {
      GTEST_SKIP() << "this file system takes no attributes";
    }
  }
  void set(const std::string& name, const std::string& content) const {
    ASSERT_EQ(::setxattr(file_.c_str(), name.c_str(), content.data(), content.size(), 0), 0);
  }
  // The attribute's text, or errno.
  std::string get(std::string_view name, std::size_t room = kRoom) {
    const auto bytes = attributes_.getxattr(file_, name, room);
    if (!bytes) return "errno " + std::to_string(bytes.error().osError);
    return std::string(bytes->begin(), bytes->end());
  }
  Value whereFroms(std::size_t room = kRoom) {
    const auto bytes = attributes_.getxattr(file_, kWhereFromsAttribute, room);
    if (!bytes) return {};
    const auto list = readPropertyList(*bytes, "attribute");
    return list ? *list : Value();
  }

  TemporaryFolder folder_;
  const std::string file_ = folder_.write("file", "content");
  LinuxExtendedAttributes attributes_;
};

TEST_F(LinuxExtendedAttributesTest, AnAttributeIsReadByThePlatformsName) {
  EXPECT_EQ(get(kQuarantine), "errno " + std::to_string(ENODATA));
  set(user(kQuarantine), "0081;5f;agent;id");
  EXPECT_EQ(get(kQuarantine), "0081;5f;agent;id");
  set(user(kQuarantine), "");
  EXPECT_EQ(get(kQuarantine), "");
}

TEST_F(LinuxExtendedAttributesTest, AnAttributeMayFillTheBuffer) {
  for (const std::size_t size : {99U, 100U}) {
    set(user(kQuarantine), std::string(size, 'a'));
    EXPECT_EQ(get(kQuarantine, 100), std::string(size, 'a'));
  }
  set(user(kQuarantine), std::string(101, 'a'));
  EXPECT_EQ(get(kQuarantine, 100), "errno " + std::to_string(ERANGE));
}

TEST_F(LinuxExtendedAttributesTest, TheOriginOfADownloadToolIsAWhereFromList) {
  set(kOrigin, "https://example.com/file?a=b");
  EXPECT_EQ(whereFroms(), Value(Array{"https://example.com/file?a=b"}));
  // Only for that attribute.
  EXPECT_EQ(get(kQuarantine), "errno " + std::to_string(ENODATA));
}

TEST_F(LinuxExtendedAttributesTest, AWhereFromAttributeTakesPrecedence) {
  set(kOrigin, "https://example.com/tool");
  set(user(kWhereFromsAttribute), "anything");
  EXPECT_EQ(get(kWhereFromsAttribute), "anything");
  set(user(kWhereFromsAttribute), std::string(101, 'a'));
  EXPECT_EQ(get(kWhereFromsAttribute, 100), "errno " + std::to_string(ERANGE));
}

TEST_F(LinuxExtendedAttributesTest, AnOriginThatIsTooLargeIsRefused) {
  // Its frame makes it larger, and a list of wide characters twice as large.
  for (const std::string& origin : {std::string(100, 'a'), "\u00e9" + std::string(98, 'a')}) {
    set(kOrigin, origin);
    EXPECT_EQ(get(kWhereFromsAttribute, 99), "errno " + std::to_string(ERANGE));
    EXPECT_EQ(whereFroms(100), Value(Array{origin}));
  }
}

TEST_F(LinuxExtendedAttributesTest, AnOriginThatIsNoTextIsIgnored) {
  for (const std::string& bytes :
       {std::string("https://example.com/\xff"), std::string("https://example.com/\0", 21)}) {
    set(kOrigin, bytes);
    EXPECT_EQ(get(kWhereFromsAttribute), "errno " + std::to_string(ENODATA));
  }
}

TEST_F(LinuxExtendedAttributesTest, AMissingFileHasItsOwnErrno) {
  const auto bytes = attributes_.getxattr(folder_.path("missing"), kQuarantine, kRoom);
  ASSERT_FALSE(bytes);
  EXPECT_EQ(bytes.error().osError, ENOENT);
  EXPECT_TRUE(bytes.error().context.starts_with(folder_.path("missing"))) << bytes.error().context;
}

TEST_F(LinuxExtendedAttributesTest, APipeDoesNotBlock) {
  const std::string pipe = folder_.path("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(attributes_.getxattr(pipe, kQuarantine, kRoom));
  EXPECT_FALSE(attributes_.getxattr(pipe, kWhereFromsAttribute, kRoom));
}

TEST_F(LinuxExtendedAttributesTest, AFileSystemWithoutAttributesSaysSo) {
  const auto bytes = attributes_.getxattr("/proc/version", kQuarantine, kRoom);
  ASSERT_FALSE(bytes);
  EXPECT_EQ(bytes.error().osError, ENOTSUP);
}

}  // namespace
}  // namespace platform
