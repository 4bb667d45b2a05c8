#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

namespace {

using namespace NSProcessInfo::Extensions;
using platform::FakeSystemInformation;
using platform::NSNotFound;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::Optional;

constexpr auto kMinusOne = std::numeric_limits<UserId>::max();

FakeSystemInformation systemOfRelease(std::string release) {
  FakeSystemInformation system;
  system.setRelease(std::move(release), {10, 99, 99});
  return system;
}

FakeSystemInformation oldSystem(OperatingSystemVersion version) {
  FakeSystemInformation system;
  system.setRelease("13.4.0", version);
  return system;
}

TEST(ProcessInfoReleaseTest, TheConstantsNameTheReleases) {
  EXPECT_EQ(kORBSystemMajorNumber5Leopard, 9);
  EXPECT_EQ(kORBSystemMajorNumber6SnowLeopard, 10);
  EXPECT_EQ(kORBSystemMajorNumber7Lion, 11);
  EXPECT_EQ(kORBSystemMajorNumber8MountainLion, 12);
  EXPECT_EQ(kORBSystemMajorNumber9Mavericks, 13);
  EXPECT_EQ(kORBSystemMajorNumber10Yosemite, 14);
  EXPECT_EQ(kORBSystemMajorNumber11ElCapitan, 15);
}

TEST(ProcessInfoReleaseTest, KernelRelease15IsElCapitan) {
  const FakeSystemInformation system = systemOfRelease("15.0.0");
  EXPECT_EQ(systemMajorNumber(&system), 15);
  EXPECT_THAT(systemMajorString(&system), Optional(std::string("10.11")));
  EXPECT_TRUE(isMacOSX11ElCapitanOrAbove(&system));
  EXPECT_FALSE(isMacOSX10Yosemite(&system));
}

TEST(ProcessInfoReleaseTest, TheMajorNumberBeginsTheFirstField) {
  const struct {
    const char* release;
    std::int64_t number;
    const char* string;
  } cases[] = {{"14.5.0", 14, "10.10"},
               {"14", 14, "10.10"},
               {"14-generic.1", 14, "10.10"},
               {" 14.5", 14, "10.10"},
               {"-14.5", -14, "10.-18"},
               {"9.8.0", 9, "10.5"},
               {"4.0", 4, "10.0"},
               {"99999999999999999999.0", INT64_MAX, "10.-5"},
               {"-99999999999999999999.0", INT64_MIN, "10.-4"}};
  for (const auto& [release, number, string] : cases) {
    const FakeSystemInformation system = systemOfRelease(release);
    EXPECT_EQ(systemMajorNumber(&system), number) << release;
    EXPECT_EQ(systemMajorString(&system), string) << release;
  }
}

TEST(ProcessInfoReleaseTest, AReleaseWithoutDigitsReadsAsAVeryOldSystem) {
  for (const char* release : {"", ".", "unknown", "x15.0", ".15"}) {
    const FakeSystemInformation system = systemOfRelease(release);
    EXPECT_EQ(systemMajorNumber(&system), 0) << release;
    EXPECT_EQ(systemMajorString(&system), "10.-4") << release;
    EXPECT_TRUE(isMacOSX6OrBelow(&system)) << release;
    EXPECT_FALSE(isMacOSX7OrAbove(&system)) << release;
  }
}

using Predicate = bool (*)(const SystemInformation*);

struct PredicateCase {
  const char* name;
  Predicate predicate;
  std::int64_t lowest;   // It holds from here
  std::int64_t highest;  // to here, both included.
};

constexpr std::int64_t kFrom = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kTo = std::numeric_limits<std::int64_t>::max();

const PredicateCase kPredicates[] = {
    {"isMacOSX6OrBelow", isMacOSX6OrBelow, kFrom, 10},
    {"isMacOSX7Lion", isMacOSX7Lion, 11, 11},
    {"isMacOSX7OrAbove", isMacOSX7OrAbove, 11, kTo},
    {"isMacOSX7OrBelow", isMacOSX7OrBelow, kFrom, 11},
    {"isMacOSX8OrAbove", isMacOSX8OrAbove, 12, kTo},
    {"isMacOSX8OrBelow", isMacOSX8OrBelow, kFrom, 12},
    {"isMacOSX9OrAbove", isMacOSX9OrAbove, 13, kTo},
    {"isMacOSX10Yosemite", isMacOSX10Yosemite, 14, 14},
    {"isMacOSX10YosemiteAndAbove", isMacOSX10YosemiteAndAbove, 14, kTo},
    {"isMacOSX11ElCapitanOrAbove", isMacOSX11ElCapitanOrAbove, 15, kTo},
};

TEST(ProcessInfoReleaseTest, EveryPredicateHoldsUpToItsBoundaryAndNotBeyond) {
  for (const PredicateCase& one : kPredicates) {
    for (const std::int64_t major :
         {kFrom, std::int64_t{-1}, std::int64_t{0}, one.lowest - 1 * (one.lowest != kFrom),
          one.lowest, one.highest, one.highest + 1 * (one.highest != kTo), kTo}) {
      const FakeSystemInformation system = systemOfRelease(std::to_string(major) + ".0.0");
      EXPECT_EQ(one.predicate(&system), one.lowest <= major && major <= one.highest)
          << one.name << " of " << major;
    }
  }
}

TEST(ProcessInfoReleaseTest, PredicatesReadTheReleaseEachTime) {
  FakeSystemInformation system = systemOfRelease("13.0.0");
  EXPECT_FALSE(isMacOSX10Yosemite(&system));
  system.setRelease("14.0.0", {10, 10, 0});
  EXPECT_TRUE(isMacOSX10Yosemite(&system));
}

TEST(ProcessInfoReleaseTest, WithoutASharedObjectEveryAnswerIsZeroNilOrFalse) {
  EXPECT_EQ(systemMajorNumber(nullptr), 0);
  EXPECT_EQ(systemMajorString(nullptr), std::nullopt);
  EXPECT_EQ(osVersion(nullptr), (OperatingSystemVersion{0, 0, 0}));
  EXPECT_EQ(osVersionString(nullptr), "0.0.0");
  for (const PredicateCase& one : kPredicates) EXPECT_FALSE(one.predicate(nullptr)) << one.name;
}

TEST(ProcessInfoReleaseTest, AMarketingReleaseHasItsKernelsMajorNumber) {
  const struct {
    const char* string;
    std::int64_t number;
  } cases[] = {
      {"10.9", 13},
      {"10.10", 14},
      {"10.0", 4},
      {"10.09", 13},
      {"10.\u0669", 13},                      // an Arabic-Indic nine
      {"10.9223372036854775803", INT64_MAX},  // just reaches the mark itself
      {"10.9223372036854775802", INT64_MAX - 1},
      {"10.x", NSNotFound},
      {"10.9x", NSNotFound},
      {"10.-9", NSNotFound},
      {"10.+9", NSNotFound},
      {"10. 9", NSNotFound},
      {"10.9 ", NSNotFound},
      {"10.9.5", NSNotFound},
      {"10.9.", NSNotFound},
      {"10..9", NSNotFound},
      {"10.", NSNotFound},
      {"10. ", NSNotFound},
      {"10.\u2003", NSNotFound},
      {"10", NSNotFound},
      {"", NSNotFound},
      {".", NSNotFound},
      {".9", NSNotFound},
      {"11.0", NSNotFound},
      {"9.9", NSNotFound},
      {" 10.9", NSNotFound},
      {"010.9", NSNotFound},
      {"10.\u00b2", NSNotFound},
      {"10.\xff", NSNotFound},
      {"10.9223372036854775804", NSNotFound},
      {"10.99999999999999999999", NSNotFound},
  };
  for (const auto& [string, number] : cases) {
    EXPECT_EQ(systemMajorNumberForSystemMajorString(string), number) << string;
  }
  EXPECT_EQ(systemMajorNumberForSystemMajorString(std::nullopt), NSNotFound);
}

TEST(ProcessInfoVersionTest, FromYosemiteOnItIsThePlatformsOwnRecord) {
  FakeSystemInformation system;
  system.failGestalt("sysv");
  system.setRelease("14.0.0", {10, 10, 5});
  EXPECT_EQ(osVersion(&system), (OperatingSystemVersion{10, 10, 5}));
  EXPECT_EQ(osVersionString(&system), "10.10.5");
  system.setRelease("20.0.0", {11, 0, 1});
  EXPECT_EQ(osVersionString(&system), "11.0.1");
  system.setRelease("14.0.0", {UINT64_MAX, 0, 0});
  EXPECT_EQ(osVersionString(&system), "18446744073709551615.0.0");
}

TEST(ProcessInfoVersionTest, BeforeYosemiteAFailureOfGestaltIsTenSixZero) {
  for (const char* selector : {"sysv", "sys1", "sys2", "sys3"}) {
    FakeSystemInformation system = oldSystem({10, 9, 5});
    system.failGestalt(selector);
    EXPECT_EQ(osVersion(&system), (OperatingSystemVersion{10, 6, 0})) << selector;
    EXPECT_EQ(osVersionString(&system), "10.6.0") << selector;
  }
}

TEST(ProcessInfoVersionTest, BeforeYosemiteAVersionThatIsPackedExactlyIsUnpacked) {
  const struct {
    std::int32_t packed;
    OperatingSystemVersion version;
  } cases[] = {{0x103f, {10, 3, 15}}, {0x1039, {10, 3, 9}}, {0x0922, {9, 2, 2}},
               {0x0a00, {10, 0, 0}},  {0, {0, 0, 0}},       {-1, {165, 15, 15}}};
  for (const auto& [packed, version] : cases) {
    FakeSystemInformation system = oldSystem({10, 9, 5});
    system.setGestalt("sysv", packed);
    for (const char* selector : {"sys1", "sys2", "sys3"}) system.failGestalt(selector);
    EXPECT_EQ(osVersion(&system), version) << std::hex << packed;
  }
}

TEST(ProcessInfoVersionTest, BeforeYosemiteALaterVersionIsReadInParts) {
  for (const std::int32_t packed : {0x1040, 0x1099, INT32_MAX}) {
    FakeSystemInformation system = oldSystem({10, 9, 5});
    system.setGestalt("sysv", packed);
    system.setGestalt("sys1", 10);
    system.setGestalt("sys2", 4);
    system.setGestalt("sys3", 11);
    EXPECT_EQ(osVersion(&system), (OperatingSystemVersion{10, 4, 11})) << std::hex << packed;
  }
}

TEST(ProcessInfoVersionTest, BothSourcesAgreeOnAConfiguredVersion) {
  const FakeSystemInformation before = oldSystem({10, 9, 5});
  EXPECT_EQ(osVersionString(&before), "10.9.5");
  const FakeSystemInformation longBefore = oldSystem({10, 3, 9});
  EXPECT_EQ(osVersionString(&longBefore), "10.3.9");
}

class ProcessFactsTest : public testing::Test {
 protected:
  using Answer = std::tuple<std::int64_t, UserId, UserId, std::optional<std::string>,
                            std::optional<std::string>>;

  std::vector<Answer> answersFor(ProcessId pid) {
    std::vector<Answer> answers;
    processInfoForPid(system_, pid, [&](auto&&... facts) { answers.emplace_back(facts...); });
    return answers;
  }

  FakeSystemInformation system_;
};

TEST_F(ProcessFactsTest, TheBlockGetsTheRecordOfTheProcessOnce) {
  system_.addProcess(70, {.e_ppid = 1, .p_ruid = 501, .cr_uid = 0, .p_comm = "über (1)"}, "/x");
  EXPECT_THAT(answersFor(70),
              ElementsAre(FieldsAre(1, 501u, 0u, Optional(std::string("über (1)")), std::nullopt)));
}

TEST_F(ProcessFactsTest, NumbersKeepTheirSign) {
  system_.addProcess(70, {.e_ppid = -1, .p_ruid = 4294967294, .cr_uid = 4294967295, .p_comm = ""},
                     std::nullopt);
  EXPECT_THAT(answersFor(70), ElementsAre(FieldsAre(-1, 4294967294u, 4294967295u,
                                                    Optional(std::string()), std::nullopt)));
}

TEST_F(ProcessFactsTest, ANameThatIsNoUtf8IsNilWithoutAnError) {
  system_.addProcess(70, {.e_ppid = 1, .p_ruid = 0, .cr_uid = 0, .p_comm = "cut \xc3"}, "/\xff");
  EXPECT_THAT(answersFor(70), ElementsAre(FieldsAre(1, 0u, 0u, std::nullopt, std::nullopt)));
  EXPECT_EQ(processPathForPid(system_, 70), std::nullopt);
}

TEST_F(ProcessFactsTest, APidThatDoesNotExistHasNoInfo) {
  EXPECT_THAT(answersFor(71),
              ElementsAre(FieldsAre(-1, kMinusOne, kMinusOne, std::nullopt,
                                    Optional(std::string("No process info found")))));
}

TEST_F(ProcessFactsTest, AnUnreadableRecordIsAnotherError) {
  system_.makeUnreadable(70);
  EXPECT_THAT(answersFor(70),
              ElementsAre(FieldsAre(-1, kMinusOne, kMinusOne, std::nullopt,
                                    Optional(std::string("Failed to read data from sysctl.")))));
}

TEST_F(ProcessFactsTest, ThePathOfAPidThatDoesNotExistIsNil) {
  EXPECT_EQ(processPathForPid(system_, 71), std::nullopt);
}

TEST_F(ProcessFactsTest, ThePathIsTheExecutablesOrNil) {
  system_.addProcess(70, {}, "/usr/sbin/demo");
  system_.addProcess(2, {}, std::nullopt);
  EXPECT_EQ(processPathForPid(system_, 70), "/usr/sbin/demo");
  EXPECT_EQ(processPathForPid(system_, 2), std::nullopt);
}

TEST_F(ProcessFactsTest, AUserHasAShortAndAFullName) {
  system_.addUser(501, {"kim", "Kim Müller"});
  system_.addUser(502, {"old", "M\xfcller"});
  EXPECT_EQ(posixNameForUid(system_, 501), "kim");
  EXPECT_EQ(fullNameForUid(system_, 501), "Kim Müller");
  EXPECT_EQ(posixNameForUid(system_, 502), "old");
  EXPECT_EQ(fullNameForUid(system_, 502), std::nullopt);
  EXPECT_EQ(posixNameForUid(system_, 503), std::nullopt);
  EXPECT_EQ(fullNameForUid(system_, 503), std::nullopt);
}

}  // namespace
