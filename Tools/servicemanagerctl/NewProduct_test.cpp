#include "Tools/servicemanagerctl/NewProduct.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace {

namespace fs = std::filesystem;
using platform::ErrorCode;

TEST(ProductName, HasLettersDigitsAndHyphens) {
  for (const char* name : {"a", "acme", "acme-2", "a2345678901234567890"})
    EXPECT_EQ(faultOfProductName(name), std::nullopt) << name;
  for (const char* name :
       {"", "a23456789012345678901", "Acme", "2acme", "-acme", "ac me", "acme/x", "ac.me", "äcme"})
    EXPECT_TRUE(faultOfProductName(name)) << name;
}

class NewProductTest : public testing::Test {
 protected:
  NewProductTest() {
    folder_.write("templates/agent", "#!/bin/sh\n# @PRODUCT@ @PRODUCT@ at @PREFIX@/usr\n");
    fs::permissions(folder_.path("templates/agent"), fs::perms(0755));
    folder_.write("templates/gitignore", "build/\n");
  }
  platform::Result<void> make() {
    return makeProductFolder({folder_.path("templates"), "acme", "/prefix"}, target_);
  }

  std::string contentOf(const std::string& below) const {
    std::ifstream file(folder_.path(below));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  platform::TemporaryFolder folder_;
  const std::string target_ = folder_.path("work/acme");
};

TEST_F(NewProductTest, TemplatesAreFilledIn) {
  const auto made = make();
  ASSERT_TRUE(made) << describe(made.error());
  EXPECT_EQ(contentOf("work/acme/agent"), "#!/bin/sh\n# acme acme at /prefix/usr\n");
  EXPECT_EQ(fs::status(target_ + "/agent").permissions(), fs::perms(0755));
  EXPECT_EQ(contentOf("work/acme/.gitignore"), "build/\n");
  EXPECT_EQ(fs::status(target_ + "/.gitignore").permissions() & fs::perms::owner_exec,
            fs::perms::none);
}

TEST_F(NewProductTest, AnEmptyFolderIsUsed) {
  fs::create_directories(target_);
  EXPECT_TRUE(make());
}

TEST_F(NewProductTest, AFolderWithContentIsLeftAlone) {
  folder_.write("work/acme/mine", "text");
  const auto made = make();
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, ErrorCode::kInvalid);
  EXPECT_FALSE(fs::exists(target_ + "/agent"));
}

TEST_F(NewProductTest, AFileIsNoFolder) {
  folder_.write("work/acme", "text");
  EXPECT_FALSE(make());
  EXPECT_EQ(contentOf("work/acme"), "text");
}

TEST_F(NewProductTest, WithoutTemplatesNothingIsMade) {
  fs::remove_all(folder_.path("templates"));
  const auto made = make();
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code, ErrorCode::kNotFound);
  EXPECT_FALSE(fs::exists(target_));
}

}  // namespace
