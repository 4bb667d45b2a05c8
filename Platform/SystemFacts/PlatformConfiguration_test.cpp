#include "Platform/SystemFacts/PlatformConfiguration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kFile[] = "/srv/demo/etc/vantor/platform.plist";

Result<PlatformConfiguration> parse(Dictionary entries) {
  return parsePlatformConfiguration(Value(std::move(entries)), kFile, "/srv/demo");
}

TEST(PathBelowRootTest, ItBeginsWithTheRoot) {
  EXPECT_EQ(pathBelowRoot("/", "etc/file"), "/etc/file");
  EXPECT_EQ(pathBelowRoot("/opt/product", "etc/file"), "/opt/product/etc/file");
}

TEST(PlatformConfigurationTest, WithoutAFileThePlatformIsThePackagedOne) {
  const PlatformConfiguration configuration = defaultPlatformConfiguration("/");
  EXPECT_EQ(configuration.root, "/");
  EXPECT_EQ(configuration.kernelRelease, "15.0.0");
  EXPECT_EQ(configuration.osVersion, (OperatingSystemVersion{10, 11, 0}));
  EXPECT_EQ(configuration.usersRoot, "/home");
  EXPECT_FALSE(configuration.group);
  EXPECT_THAT(configuration.openListeners, IsEmpty());
  EXPECT_THAT(configuration.nameOwners, IsEmpty());
  EXPECT_THAT(configuration.languages, IsEmpty());
  EXPECT_FALSE(configuration.notificationBus);
  EXPECT_FALSE(configuration.logSink);
  EXPECT_EQ(configuration.logLevel, 6);
  EXPECT_EQ(configuration.serviceOutput, PlatformConfiguration::ServiceOutput::kLog);
}

TEST(PlatformConfigurationTest, ThePlatformChoosesAnUnnamedLogSink) {
  EXPECT_FALSE(parse({})->logSink);
  EXPECT_EQ(parse({{"LogSink", "journal"}})->logSink, PlatformConfiguration::LogSink::kJournal);
  EXPECT_EQ(parse({{"LogSink", "syslog"}})->logSink, PlatformConfiguration::LogSink::kSyslog);
}

TEST(PlatformConfigurationTest, TheOutputOfServicesHasThreePlaces) {
  using Output = PlatformConfiguration::ServiceOutput;
  EXPECT_EQ(parse({{"ServiceOutput", "log"}})->serviceOutput, Output::kLog);
  EXPECT_EQ(parse({{"ServiceOutput", "journal"}})->serviceOutput, Output::kJournal);
  EXPECT_EQ(parse({{"ServiceOutput", "discard"}})->serviceOutput, Output::kDiscard);
}

TEST(PlatformConfigurationTest, EveryKeyIsRead) {
  const auto configuration = parse({{"KernelRelease", "14.5.0"},
                                    {"OSVersion", "10.9"},
                                    {"UsersRoot", "/Users"},
                                    {"Group", "vantor"},
                                    {"OpenListeners", Array{"states", "registry"}},
                                    {"NameOwners", Dictionary{{"settings", "keeper"}}},
                                    {"Languages", Array{"de", "en"}},
                                    {"NotificationBus", "unix:path=/run/bus"},
                                    {"JobBackend", "embedded"},
                                    {"ServiceOutput", "discard"},
                                    {"LogSink", "file"},
                                    {"LogLevel", 3}});
  ASSERT_TRUE(configuration) << configuration.error().context;
  EXPECT_EQ(configuration->root, "/srv/demo");
  EXPECT_EQ(configuration->kernelRelease, "14.5.0");
  EXPECT_EQ(configuration->osVersion, (OperatingSystemVersion{10, 9, 0}));
  EXPECT_EQ(configuration->usersRoot, "/Users");
  EXPECT_EQ(configuration->group, "vantor");
  EXPECT_THAT(configuration->openListeners, ElementsAre("states", "registry"));
  EXPECT_THAT(configuration->nameOwners, ElementsAre(testing::Pair("settings", "keeper")));
  EXPECT_THAT(configuration->warnings, IsEmpty());
  EXPECT_THAT(configuration->languages, ElementsAre("de", "en"));
  EXPECT_EQ(configuration->notificationBus, "unix:path=/run/bus");
  EXPECT_EQ(configuration->logSink, PlatformConfiguration::LogSink::kFile);
  EXPECT_EQ(configuration->logLevel, 3);
}

TEST(PlatformConfigurationTest, TheOsVersionFollowsTheKernelReleaseUnlessItIsGiven) {
  const struct {
    const char* release;
    OperatingSystemVersion version;
  } cases[] = {{"4", {10, 0, 0}},
               {"13.4.0", {10, 9, 4}},
               {"14.5", {10, 10, 5}},
               {"15.6.9", {10, 11, 6}},
               {"9999.9999.9999", {10, 9995, 9999}}};
  for (const auto& [release, version] : cases) {
    const auto configuration = parse({{"KernelRelease", release}});
    ASSERT_TRUE(configuration) << release;
    EXPECT_EQ(configuration->osVersion, version) << release;
  }
  const auto given = parse({{"OSVersion", "10.8.5"}, {"KernelRelease", "13.0.0"}});
  EXPECT_EQ(given->osVersion, (OperatingSystemVersion{10, 8, 5}));
}

TEST(PlatformConfigurationTest, InstallerAndSecretAreNeverOpen) {
  const auto configuration =
      parse({{"OpenListeners", Array{"com.vantor.servicemanager.installer.server", "states",
                                     "com.vantor.common.servicemanager.auth"}}});
  ASSERT_TRUE(configuration);
  EXPECT_THAT(configuration->openListeners, ElementsAre("states"));
  EXPECT_THAT(
      configuration->warnings,
      ElementsAre(AllOf(StartsWith(kFile),
                        HasSubstr("com.vantor.servicemanager.installer.server is never")),
                  HasSubstr("com.vantor.common.servicemanager.auth is never open to everybody")));
}

struct Refusal {
  const char* key;
  Value value;
  const char* expected;
};

TEST(PlatformConfigurationTest, AWrongValueNamesFileKeyAndExpectation) {
  const Refusal refusals[] = {
      {"KernelRelease", 15, "one to three numbers"},
      {"KernelRelease", "", "one to three numbers"},
      {"KernelRelease", "15.", "one to three numbers"},
      {"KernelRelease", ".15", "one to three numbers"},
      {"KernelRelease", "15.0.0.0", "one to three numbers"},
      {"KernelRelease", "15.0-generic", "one to three numbers"},
      {"KernelRelease", "-15.0", "one to three numbers"},
      {"KernelRelease", "10000.0", "at most four digits"},
      {"KernelRelease", "3.9.9", "the first at least 4"},
      {"OSVersion", "10", "two or three numbers"},
      {"OSVersion", 10.11, "two or three numbers"},
      {"OSVersion", "10.11.0.1", "two or three numbers"},
      {"OSVersion", "10.x", "two or three numbers"},
      {"UsersRoot", "home", "absolute path"},
      {"UsersRoot", "", "absolute path"},
      {"UsersRoot", "/" + std::string(4095, 'a'), "absolute path"},
      {"UsersRoot", std::string("/ho\0me", 6), "absolute path"},
      {"Group", "", "name of a group"},
      {"Group", 80, "name of a group"},
      {"Group", "a:b", "name of a group"},
      {"Group", std::string(33, 'g'), "name of a group"},
      {"Group", "..", "name of a group"},
      {"OpenListeners", "states", "array"},
      {"OpenListeners", Array{1}, "array"},
      {"OpenListeners", Array{""}, "array"},
      {"OpenListeners", Array(65, Value("states")), "array"},
      {"NameOwners", "keeper", "dictionary"},
      {"NameOwners", Dictionary{{"settings", 1}}, "name of a user"},
      {"NameOwners", Dictionary{{"settings", "../keeper"}}, "name of a user"},
      {"NameOwners", Dictionary{{"settings", "."}}, "name of a user"},
      {"NameOwners", Dictionary{{"", "keeper"}}, "name of a user"},
      {"Languages", "en", "array"},
      {"Languages", Array{"en", 1}, "array"},
      {"Languages", Array{""}, "array"},
      {"Languages", Array(65, Value("en")), "array"},
      {"NotificationBus", "session", "D-Bus address"},
      {"NotificationBus", ":path=/x", "D-Bus address"},
      {"NotificationBus", true, "D-Bus address"},
      {"JobBackend", "Embedded", "\"embedded\" or \"systemd\""},
      {"JobBackend", "SystemD", "\"embedded\" or \"systemd\""},
      {"JobBackend", 1, "\"embedded\" or \"systemd\""},
      {"LogSink", "stderr", "\"journal\", \"syslog\" or \"file\""},
      {"LogSink", Dictionary(), "\"journal\", \"syslog\" or \"file\""},
      {"ServiceOutput", "file", "\"log\", \"journal\" or \"discard\""},
      {"ServiceOutput", false, "\"log\", \"journal\" or \"discard\""},
      {"LogLevel", -1, "an integer from 0 to 7"},
      {"LogLevel", 8, "an integer from 0 to 7"},
      {"LogLevel", true, "an integer from 0 to 7"},
      {"LogLevel", 7.0, "an integer from 0 to 7"},
      {"LogLevel", "7", "an integer from 0 to 7"},
  };
  for (const Refusal& refusal : refusals) {
    const auto configuration = parse({{refusal.key, refusal.value}});
    ASSERT_FALSE(configuration) << refusal.key;
    EXPECT_EQ(configuration.error().code, ErrorCode::kInvalid);
    EXPECT_THAT(
        configuration.error().context,
        AllOf(StartsWith(std::string(kFile) + ": "),
              HasSubstr(std::string("\"") + refusal.key + "\""), HasSubstr(refusal.expected)));
  }
}

TEST(PlatformConfigurationTest, ValuesAtTheLimitAreAccepted) {
  const Refusal taken[] = {
      {"UsersRoot", "/" + std::string(4094, 'a'), ""},
      {"Group", std::string(32, 'g'), ""},
      {"Languages", Array(64, Value("en")), ""},
      {"Languages", Array(), ""},
      {"NotificationBus", "system", ""},
      {"LogLevel", 0, ""},
      {"LogLevel", 7, ""},
      {"JobBackend", "embedded", ""},
      {"KernelRelease", "9999.0.0", ""},
  };
  for (const Refusal& one : taken) EXPECT_TRUE(parse({{one.key, one.value}})) << one.key;
}

TEST(PlatformConfigurationTest, AnUnknownKeyIsRefusedWithTheKnownOnes) {
  const auto configuration = parse({{"Loglevel", 7}});
  ASSERT_FALSE(configuration);
  EXPECT_THAT(configuration.error().context,
              AllOf(StartsWith(kFile), HasSubstr("unknown key \"Loglevel\""),
                    HasSubstr("KernelRelease, OSVersion"), HasSubstr("LogLevel")));
}

TEST(PlatformConfigurationTest, AnErrorIsOneShortLineForAnyKey) {
  const std::string longKey(5000, 'k');
  const auto configuration = parse({{longKey, 1}});
  ASSERT_FALSE(configuration);
  EXPECT_LT(configuration.error().context.size(), 400u);
  const auto lineBreak = parse({{"Log\nLevel", 1}});
  EXPECT_EQ(lineBreak.error().context.find('\n'), std::string::npos);
}

TEST(PlatformConfigurationTest, OnlyADictionaryIsAccepted) {
  const auto configuration = parsePlatformConfiguration(Array{}, kFile, "/");
  ASSERT_FALSE(configuration);
  EXPECT_EQ(configuration.error().context,
            std::string(kFile) + ": expected a dictionary, found an NSArray");
}

}  // namespace
}  // namespace platform
