#include "Platform/Files/Bundle.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Platform/Values/Value.h"

namespace platform {
namespace {

TEST(BundleLayoutTest, AProgramInABundleBelongsToIt) {
  const BundleLayout expected{"/srv/Demo.bundle", "/srv/Demo.bundle/Contents/Info.plist",
                              "/srv/Demo.bundle/Contents/Linux/demo",
                              "/srv/Demo.bundle/Contents/Resources"};
  EXPECT_EQ(bundleLayoutOfExecutable("/srv/Demo.bundle/Contents/Linux/demo"), expected);
  EXPECT_EQ(bundleLayoutOfExecutable("/A.bundle/Contents/Linux/a").path, "/A.bundle");
}

TEST(BundleLayoutTest, AProgramAnywhereElseHasAFlatBundle) {
  const BundleLayout expected{"/usr/sbin", "/usr/sbin/Info.plist", "/usr/sbin/demo", "/usr/sbin"};
  EXPECT_EQ(bundleLayoutOfExecutable("/usr/sbin/demo"), expected);
  for (const char* folder :
       {"/Demo.bundle/Contents/linux", "/Demo.bundle/contents/Linux", "/Demo.d/Contents/Linux",
        "/.bundle/Contents/Linux", "/Demo.bundle/Linux", "/Demo.bundle/Contents/Linux/Helpers",
        "/Contents/Linux", "/Linux", "/Demo.bundle/Contents/Resources"}) {
    EXPECT_EQ(bundleLayoutOfExecutable(std::string(folder) + "/demo").path, folder);
  }
}

TEST(BundleLayoutTest, AnExtensionIsABundleToo) {
  for (const char* name : {"/opt/Demo.kext", "/opt/Demo.app"}) {
    EXPECT_EQ(bundleLayoutOfExecutable(std::string(name) + "/Contents/Linux/demo").path, name);
  }
}

TEST(BundleLayoutTest, AProgramInTheRootFolderHasTheRootFolder) {
  EXPECT_EQ(bundleLayoutOfExecutable("/demo"), (BundleLayout{"/", "/Info.plist", "/demo", "/"}));
}

class BundleTest : public testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::path(testing::TempDir()) /
            testing::UnitTest::GetInstance()->current_test_info()->name();
    std::filesystem::remove_all(root_);
    const auto resources = root_ / "D.bundle/Contents/Resources";
    std::filesystem::create_directories(resources / "en.lproj");
    for (const char* name : {"Service.plist", "plain", "en.lproj/Text.strings", "../Info.plist"}) {
      std::ofstream(resources / name) << "x";
    }
    std::filesystem::create_symlink("nowhere", resources / "dangling");
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  std::optional<std::string> found(std::string_view name, std::string_view extension) const {
    const Bundle bundle(bundleLayoutOfExecutable((root_ / "D.bundle/Contents/Linux/d").native()),
                        Dictionary());
    auto path = bundle.pathForResource(name, extension);
    if (path) path->erase(0, bundle.resourcePath().size());
    return path;
  }

  std::filesystem::path root_;
};

TEST_F(BundleTest, AResourceIsFoundByNameAndExtension) {
  EXPECT_EQ(found("Service", "plist"), "/Service.plist");
  EXPECT_EQ(found("Service", ".plist"), "/Service.plist");
  EXPECT_EQ(found("Service.plist", ""), "/Service.plist");
  EXPECT_EQ(found("plain", ""), "/plain");
  EXPECT_EQ(found("en", "lproj"), "/en.lproj");
  EXPECT_EQ(found("en.lproj/Text", "strings"), "/en.lproj/Text.strings");
}

TEST_F(BundleTest, AMissingResourceIsNil) {
  EXPECT_EQ(found("service", "plist"), std::nullopt);
  EXPECT_EQ(found("Service", ""), std::nullopt);
  EXPECT_EQ(found("plain", "plist"), std::nullopt);
  EXPECT_EQ(found("dangling", ""), std::nullopt);
  EXPECT_EQ(found("plain/below", ""), std::nullopt);
  EXPECT_EQ(found(std::string(5000, 'n'), ""), std::nullopt);
}

TEST_F(BundleTest, ANameNeverLeadsOutOfTheResources) {
  EXPECT_EQ(found("../Info", "plist"), std::nullopt);
  EXPECT_EQ(found("en.lproj/../../Info", "plist"), std::nullopt);
  EXPECT_EQ(found("", "plist"), std::nullopt);
  EXPECT_EQ(found("", ""), std::nullopt);
  EXPECT_EQ(found(".", ""), std::nullopt);
  EXPECT_EQ(found("..", ""), std::nullopt);
  EXPECT_EQ(found("/plain", ""), std::nullopt);
  EXPECT_EQ(found("plain", "/../../Info.plist"), std::nullopt);
  EXPECT_EQ(found(std::string_view("plain\0x", 7), ""), std::nullopt);
}

TEST(BundleInfoTest, ABundleReturnsItsInfoDictionary) {
  const Bundle bundle(bundleLayoutOfExecutable("/a/b"), Dictionary{{"CFBundleIdentifier", "x.y"}});
  EXPECT_EQ(bundle.infoDictionary()["CFBundleIdentifier"], Value("x.y"));
  EXPECT_EQ(bundle.path(), "/a");
  EXPECT_EQ(bundle.executablePath(), "/a/b");
}

}  // namespace
}  // namespace platform
