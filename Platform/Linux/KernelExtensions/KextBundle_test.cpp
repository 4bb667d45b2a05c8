#include "Platform/Linux/KernelExtensions/KextBundle.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class KextBundleTest : public testing::Test {
 protected:
  Result<KextBundle> read(const std::string& keys) {
    folder_.write("X.kext/Contents/Info.plist",
                  "<plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
    return readKextBundle(folder_.path("X.kext"));
  }
  static std::string key(const std::string& name, const std::string& value) {
    return "<key>" + name + "</key><string>" + value + "</string>";
  }
  void expectRefused(const Result<KextBundle>& bundle, const std::string& reason) {
    ASSERT_FALSE(bundle);
    EXPECT_EQ(bundle.error().code, ErrorCode::kInvalid);
    EXPECT_THAT(bundle.error().context,
                AllOf(HasSubstr("X.kext/Contents/Info.plist"), HasSubstr(reason)));
  }

  TemporaryFolder folder_;
  const std::string identifier_ = key("CFBundleIdentifier", "com.example.x");
  const std::string program_ = key("CFBundleExecutable", "p");
};

TEST_F(KextBundleTest, AnExtensionIsAProgramPerhapsWithAModule) {
  const auto program = read(identifier_ + key("CFBundleExecutable", "wfk"));
  ASSERT_TRUE(program);
  EXPECT_EQ(program->identifier, "com.example.x");
  EXPECT_EQ(program->programPath, folder_.path("X.kext/Contents/Linux/wfk"));
  EXPECT_FALSE(program->kernelModule);
  const auto module = read(identifier_ + program_ + key("OSKernelModule", "net-pf-10"));
  ASSERT_TRUE(module);
  EXPECT_EQ(module->kernelModule, "net-pf-10");
  EXPECT_EQ(module->programPath, folder_.path("X.kext/Contents/Linux/p"));
}

TEST_F(KextBundleTest, ABundleWithoutAProgramIsNoExtension) {
  expectRefused(read(identifier_), "expected \"CFBundleExecutable\"");
  expectRefused(read(identifier_ + key("OSKernelModule", "b")), "which offers the control");
}

TEST_F(KextBundleTest, NamesThatArePathsAreRefused) {
  for (const char* name : {"", "../x", "a/b", "/bin/sh", ".", ".."}) {
    expectRefused(read(identifier_ + key("CFBundleExecutable", name)), "is no name");
    expectRefused(read(identifier_ + program_ + key("OSKernelModule", name)), "is no name");
    expectRefused(read(key("CFBundleIdentifier", name) + program_), "CFBundleIdentifier");
  }
  EXPECT_TRUE(read(identifier_ + program_ + key("OSKernelModule", std::string(255, 'a'))));
  expectRefused(read(identifier_ + program_ + key("OSKernelModule", std::string(256, 'a'))),
                "is no name");
  expectRefused(read("<key>CFBundleIdentifier</key><integer>1</integer>"), "CFBundleIdentifier");
}

TEST_F(KextBundleTest, TheErrorNamesAnUnreadableBundle) {
  folder_.write("Bad.kext/Contents/Info.plist", "<plist>");
  const auto found = findKextBundle("com.example.x", {folder_.path()});
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code, ErrorCode::kNotFound);
  EXPECT_THAT(found.error().context, HasSubstr("Bad.kext/Contents/Info.plist"));
  read(identifier_ + key("CFBundleExecutable", "wfk"));
  EXPECT_TRUE(findKextBundle("com.example.x", {folder_.path("not there"), folder_.path()}));
}

TEST_F(KextBundleTest, WithoutDescriptorsNothingIsKnownAboutABundle) {
  read(identifier_ + program_);
  const auto find = [&] { return findKextBundle("com.example.x", {folder_.path()}); };
  for (const auto left : {DescriptorShortage::Left::kNone, DescriptorShortage::Left::kOne}) {
    const auto found = [&] {
      const DescriptorShortage shortage(left);
      return find();
    }();
    ASSERT_FALSE(found);
    EXPECT_TRUE(isUnchecked(found.error())) << describe(found.error());
    EXPECT_THAT(found.error().context, HasSubstr("can't be looked for"));
  }
  EXPECT_TRUE(find());
}

TEST_F(KextBundleTest, AnEarlierFolderTakesPrecedence) {
  for (const char* folder : {"first", "second"}) {
    folder_.write(std::string(folder) + "/X.kext/Contents/Info.plist",
                  "<plist version=\"1.0\"><dict>" + identifier_ + program_ +
                      key("OSKernelModule", folder) + "</dict></plist>");
  }
  const auto found =
      findKextBundle("com.example.x", {folder_.path("first"), folder_.path("second")});
  ASSERT_TRUE(found) << describe(found.error());
  EXPECT_EQ(found->kernelModule, "first");
}

TEST_F(KextBundleTest, TwoBundlesWithOneIdentifierAreRefused) {
  read(identifier_ + program_ + key("OSKernelModule", "a"));
  std::filesystem::copy(folder_.path("X.kext"), folder_.path("A.kext"),
                        std::filesystem::copy_options::recursive);
  const auto found = findKextBundle("com.example.x", {folder_.path()});
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(found.error().context, "com.example.x: " + folder_.path("A.kext") + " and " +
                                       folder_.path("X.kext") + " both claim to be it");
}

TEST_F(KextBundleTest, ABundlesPathCanBeSpelledInAnyWay) {
  read(identifier_ + program_ + key("OSKernelModule", "a"));
  std::filesystem::rename(folder_.path("X.kext"), folder_.path("X"));
  for (const char* path : {"X", "X/"}) {
    EXPECT_TRUE(findKextBundle("com.example.x", {folder_.path(path)})) << path;
  }
}

TEST_F(KextBundleTest, AFolderWithTooManyEntriesIsNotSearched) {
  read(identifier_ + program_ + key("OSKernelModule", "a"));
  std::size_t entries = 1;
  const auto find = [&](std::size_t count) {
    for (; entries < count; ++entries) folder_.write(std::to_string(entries), "");
    return findKextBundle("com.example.x", {folder_.path()});
  };
  EXPECT_TRUE(find(kMaxKextsInFolder - 1));
  EXPECT_TRUE(find(kMaxKextsInFolder));
  const auto refused = find(kMaxKextsInFolder + 1);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
}

TEST_F(KextBundleTest, DanglingOrCircularLinksAreNoBundles) {
  std::filesystem::create_symlink("Circle.kext", folder_.path("Circle.kext"));
  std::filesystem::create_symlink("nowhere", folder_.path("Dangling.kext"));
  const auto missing = findKextBundle("com.example.x", {folder_.path()});
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, ErrorCode::kNotFound);
  EXPECT_THAT(missing.error().context, HasSubstr("Circle.kext"));
  read(identifier_ + program_ + key("OSKernelModule", "a"));
  EXPECT_TRUE(findKextBundle("com.example.x", {folder_.path()}));
}

}  // namespace
}  // namespace platform
