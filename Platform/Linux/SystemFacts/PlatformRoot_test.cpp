#include "Platform/Linux/SystemFacts/PlatformRoot.h"

#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr char kConfigurationFile[] = "etc/vantor/platform.plist";

std::string propertyList(const std::string& entries) {
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>)" +
         entries + "</dict></plist>\n";
}

class PlatformRootTest : public testing::Test {
 protected:
  // Sets the mode, because the test's umask must not affect the checks.
  std::string writeConfiguration(std::string_view below, const std::string& content) {
    const std::string path = folder_.write(below, content);
    EXPECT_EQ(::chmod(path.c_str(), 0644), 0);
    return path;
  }

  Error refusal() {
    const auto configuration = readPlatformConfiguration(folder_.path());
    EXPECT_FALSE(configuration);
    return configuration ? Error() : configuration.error();
  }

  TemporaryFolder folder_;
};

TEST_F(PlatformRootTest, TheNearestFolderWithAConfigurationIsTheRoot) {
  writeConfiguration(kConfigurationFile, propertyList(""));
  writeConfiguration("inner/" + std::string(kConfigurationFile), propertyList(""));
  const auto rootOf = [&](const char* below) {
    return platformRootOfExecutable(folder_.path(below));
  };
  EXPECT_EQ(rootOf("program"), folder_.path());
  EXPECT_EQ(rootOf("D.bundle/Contents/Linux/program"), folder_.path());
  EXPECT_EQ(rootOf("inner/usr/sbin/program"), folder_.path("inner"));
  EXPECT_EQ(rootOf("inner2/program"), folder_.path());
}

TEST_F(PlatformRootTest, WithoutAnyConfigurationTheRootIsTheSystems) {
  folder_.write("etc/vantor/platform.plist.old", "");
  EXPECT_EQ(platformRootOfExecutable(folder_.path("bin/program")), "/");
  EXPECT_EQ(platformRootOfExecutable("/program"), "/");
  EXPECT_EQ(platformRootOfExecutable("program"), "/");
}

TEST_F(PlatformRootTest, AnotherKindOfFileMarksTheRootAndIsRefused) {
  std::filesystem::create_directories(folder_.path("etc/vantor"));
  std::filesystem::create_symlink("nowhere", folder_.path(kConfigurationFile));
  EXPECT_EQ(platformRootOfExecutable(folder_.path("program")), folder_.path());
  EXPECT_THAT(refusal().context,
              AllOf(StartsWith(folder_.path(kConfigurationFile)), HasSubstr("symbolic link")));
}

TEST_F(PlatformRootTest, AGivenFolderIsARootIfItHasAConfiguration) {
  writeConfiguration(kConfigurationFile, propertyList(""));
  std::filesystem::create_directory_symlink(folder_.path(), folder_.path("link"));
  EXPECT_EQ(platformRootAt(folder_.path()), folder_.path());
  EXPECT_EQ(platformRootAt(folder_.path("link/")), folder_.path());
  EXPECT_EQ(platformRootAt("/"), "/");
  const auto inner = platformRootAt(folder_.path("etc"));
  ASSERT_FALSE(inner);
  EXPECT_EQ(inner.error().code, ErrorCode::kInvalid);
  EXPECT_THAT(describe(inner.error()),
              AllOf(StartsWith(folder_.path("etc")), HasSubstr("etc/vantor/platform.plist")));
  const auto missing = platformRootAt(folder_.path("nowhere"));
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, ErrorCode::kNotFound);
}

TEST_F(PlatformRootTest, AConfigurationIsReadInBothFormats) {
  writeConfiguration(kConfigurationFile, propertyList("<key>LogLevel</key><integer>3</integer>"));
  const auto xml = readPlatformConfiguration(folder_.path());
  ASSERT_TRUE(xml) << xml.error().context;
  EXPECT_EQ(xml->logLevel, 3);
  EXPECT_EQ(xml->root, folder_.path());

  // {LogLevel: 4}
  const unsigned char binary[] = {'b',  'p', 'l', 'i', 's', 't', '0', '0', 0xd1, 0x01, 0x02, 0x58,
                                  'L',  'o', 'g', 'L', 'e', 'v', 'e', 'l', 0x10, 0x04, 0x08, 0x0b,
                                  0x14, 0,   0,   0,   0,   0,   0,   1,   1,    0,    0,    0,
                                  0,    0,   0,   0,   3,   0,   0,   0,   0,    0,    0,    0,
                                  0,    0,   0,   0,   0,   0,   0,   0,   0x16};
  writeConfiguration(kConfigurationFile, std::string(std::begin(binary), std::end(binary)));
  const auto fromBinary = readPlatformConfiguration(folder_.path());
  ASSERT_TRUE(fromBinary) << fromBinary.error().context;
  EXPECT_EQ(fromBinary->logLevel, 4);
}

TEST_F(PlatformRootTest, AMissingConfigurationMeansTheDefaults) {
  const auto configuration = readPlatformConfiguration(folder_.path());
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->kernelRelease, "15.0.0");
  EXPECT_EQ(configuration->root, folder_.path());
}

TEST_F(PlatformRootTest, ErrorsInTheFileNameIt) {
  const std::string path =
      writeConfiguration(kConfigurationFile, propertyList("<key>LogLevel</key><true/>"));
  EXPECT_THAT(refusal().context, AllOf(StartsWith(path), HasSubstr("\"LogLevel\"")));
  writeConfiguration(kConfigurationFile, "{}");
  EXPECT_THAT(refusal().context, StartsWith(path));
}

TEST_F(PlatformRootTest, AFileThatOthersCanWriteIsNotTrusted) {
  const std::string path = writeConfiguration(kConfigurationFile, propertyList(""));
  ASSERT_EQ(::chmod(path.c_str(), 0664), 0);
  const Error error = refusal();
  EXPECT_EQ(error.code, ErrorCode::kDenied);
  EXPECT_EQ(error.context,
            path +
                ": not trusted: others than its owner can write it (mode 0664); forbid it with "
                "chmod go-w");
  ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
  EXPECT_TRUE(readPlatformConfiguration(folder_.path()));
}

TEST_F(PlatformRootTest, AFileOfAnotherUserIsNotTrusted) {
  const std::string path = writeConfiguration(kConfigurationFile, propertyList(""));
  if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file away";
  ASSERT_EQ(::chown(path.c_str(), 65534, 65534), 0);
  const Error error = refusal();
  EXPECT_EQ(error.code, ErrorCode::kDenied);
  EXPECT_THAT(error.context,
              HasSubstr("not trusted: it belongs to uid 65534; give it to root (chown)"));
}

TEST_F(PlatformRootTest, TrustDependsOnOwnerAndMode) {
  const struct {
    uid_t owner;
    mode_t mode;
    uid_t caller;
    bool trusted;
  } cases[] = {{0, 0644, 0, true},      {0, 0600, 501, true},        {501, 0644, 501, true},
               {501, 0644, 0, false},   {502, 0644, 501, false},     {0, 0444, 0, true},
               {0, 0664, 0, false},     {0, 0646, 0, false},         {0, 0602, 501, false},
               {501, 0620, 501, false}, {501, 0755, 501, true},      {501, 0777, 501, false},
               {65534, 0600, 0, false}, {0, S_IFREG | 0644, 0, true}};
  for (const auto& [owner, mode, caller, trusted] : cases) {
    EXPECT_EQ(checkConfigurationTrust("f", owner, mode, caller).has_value(), trusted)
        << owner << " " << std::oct << mode << " " << caller;
  }
  EXPECT_THAT(checkConfigurationTrust("f", 502, 0644, 501).error().context,
              HasSubstr("give it to root or uid 501"));
}

TEST_F(PlatformRootTest, OnlyARegularFileOfLimitedSizeIsRead) {
  const std::string empty = propertyList("");
  const auto padded = [&](std::size_t size) {
    return empty + std::string(size - empty.size(), ' ');
  };
  writeConfiguration(kConfigurationFile, padded(64 * 1024));
  EXPECT_TRUE(readPlatformConfiguration(folder_.path()));
  writeConfiguration(kConfigurationFile, padded(64 * 1024 + 1));
  EXPECT_EQ(refusal().code, ErrorCode::kExhausted);

  std::filesystem::remove(folder_.path(kConfigurationFile));
  ASSERT_EQ(::mkfifo(folder_.path(kConfigurationFile).c_str(), 0600), 0);
  EXPECT_THAT(refusal().context, HasSubstr("is not a regular file"));
}

TEST_F(PlatformRootTest, TheBundleOfAProgramHasItsInfoDictionary) {
  folder_.write("D.bundle/Contents/Info.plist",
                propertyList("<key>CFBundleIdentifier</key><string>com.vantor.d</string>"));
  folder_.write("D.bundle/Contents/Resources/Service.plist", "");
  const auto bundle = bundleOfExecutable(folder_.path("D.bundle/Contents/Linux/d"));
  ASSERT_TRUE(bundle) << bundle.error().context;
  EXPECT_EQ(bundle->path(), folder_.path("D.bundle"));
  EXPECT_EQ(bundle->infoDictionary()["CFBundleIdentifier"], Value("com.vantor.d"));
  EXPECT_EQ(bundle->pathForResource("Service", "plist"),
            folder_.path("D.bundle/Contents/Resources/Service.plist"));
}

TEST_F(PlatformRootTest, TheInfoDictionaryMayBeMissingButNotMalformed) {
  const std::string program = folder_.path("bin/d");
  const auto flat = bundleOfExecutable(program);
  ASSERT_TRUE(flat) << flat.error().context;
  EXPECT_EQ(flat->path(), folder_.path("bin"));
  EXPECT_TRUE(flat->infoDictionary().empty());

  const std::string info =
      folder_.write("bin/Info.plist", "<plist version=\"1.0\"><array/></plist>");
  const auto array = bundleOfExecutable(program);
  ASSERT_FALSE(array);
  EXPECT_EQ(array.error().context, info + ": expected a dictionary, found an NSArray");

  folder_.write("bin/Info.plist", "nonsense");
  EXPECT_THAT(bundleOfExecutable(program).error().context, StartsWith(info));
}

}  // namespace
}  // namespace platform
