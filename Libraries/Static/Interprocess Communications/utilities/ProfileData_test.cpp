#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"

#include <cerrno>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using platform::Data;
using testing::ElementsAre;

// Copies, because a change of either table makes the new build incompatible with installed ones.
constexpr std::uint8_t kA[] = {0x4a, 0x0b, 0x55, 0x1c, 0x61, 0xe0, 0xc3, 0xc4,
                               0xa1, 0x4a, 0x93, 0x36, 0xe0, 0x5c, 0xce, 0x82};
constexpr std::uint8_t kB[] = {0xcf, 0x42, 0xec, 0xa5, 0xff, 0x3a, 0x88, 0x76,
                               0x4b, 0xf4, 0xa5, 0x3d, 0x5c, 0x82, 0xa5, 0xc7};

Data expectedSystemToken(std::uint8_t m) {
  Data token;
  for (const auto& [one, other] :
       {std::pair{0, 15}, {1, 14}, {2, 13}, {3, 12}, {4, 11}, {5, 10}, {6, 9}, {7, 8}}) {
    token.push_back(kA[one] ^ kA[other] ^ m);
  }
  for (int at = 8; at < 16; ++at) token.push_back(kA[at] ^ m);
  return token;
}

Data expectedClientToken(std::uint8_t m) {
  Data token;
  for (const auto& [one, other] :
       {std::pair{0, 7}, {1, 8}, {2, 9}, {3, 10}, {4, 11}, {5, 12}, {6, 13}, {7, 14}}) {
    token.push_back(kB[one] ^ kB[other] ^ m);
  }
  for (int at = 8; at < 16; ++at) token.push_back(kB[at] ^ m);
  return token;
}

TEST(ProfileDataTest, TheTokensMixTablesWithTheLowestByteOfBootTime) {
  const struct {
    std::int64_t bootTime;
    std::uint8_t mask;
  } cases[] = {{0, 0},
               {1, 1},
               {255, 255},
               {256, 0},
               {257, 1},
               {1'767'323'045, 0xa5},
               {2'147'483'647, 0xff},
               {2'147'483'648, 0},
               {4'294'967'297, 1},
               {INT64_MAX, 0}};  // as a double it is the next power of two
  for (const auto& [bootTime, mask] : cases) {
    platform::FakeSystemInformation system;
    system.setBootTime(bootTime);
    EXPECT_EQ(systemProfileData(system), expectedSystemToken(mask)) << bootTime;
    EXPECT_EQ(clientProfileData(system), expectedClientToken(mask)) << bootTime;
  }
}

TEST(ProfileDataTest, AKnownBootTimeGivesTheSameTokensInEachBuild) {
  platform::FakeSystemInformation system;
  system.setBootTime(0x6957'0085);
  EXPECT_THAT(systemProfileData(system),
              ElementsAre(0x4d, 0x40, 0x8c, 0x79, 0xd2, 0xf6, 0x0c, 0xe0, 0x24, 0xcf, 0x16, 0xb3,
                          0x65, 0xd9, 0x4b, 0x07));
  EXPECT_THAT(clientProfileData(system),
              ElementsAre(0x3c, 0x8c, 0x9d, 0x85, 0x47, 0xe3, 0x8f, 0x56, 0xce, 0x71, 0x20, 0xb8,
                          0xd9, 0x07, 0x20, 0x42));
}

TEST(ProfileDataTest, AnUnreadableBootTimeGivesBothSidesTheSameMask) {
  platform::FakeSystemInformation system;
  system.setBootTime(
      std::unexpected(platform::Error{platform::ErrorCode::kSystem, EACCES, "/proc/stat"}));
  testing::internal::CaptureStderr();
  const Data systemToken = systemProfileData(system);
  const Data clientToken = clientProfileData(system);
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(systemToken, expectedSystemToken(0xff));
  EXPECT_EQ(clientToken, expectedClientToken(0xff));
}

TEST(ProfileDataTest, AnotherBootChangesBothTokens) {
  platform::FakeSystemInformation system;
  const Data systemToken = systemProfileData(system);
  const Data clientToken = clientProfileData(system);
  EXPECT_EQ(systemProfileData(system), systemToken);
  EXPECT_EQ(clientProfileData(system), clientToken);
  system.setBootTime(platform::FakeSystemInformation::kBootTime + 1);
  EXPECT_NE(systemProfileData(system), systemToken);
  EXPECT_NE(clientProfileData(system), clientToken);
}

TEST(ProfileDataTest, TheTwoTokensDiffer) {
  const platform::LinuxSystemInformation system(platform::PlatformConfiguration(), "/proc");
  EXPECT_EQ(systemProfileData(system).size(), 16u);
  EXPECT_EQ(clientProfileData(system).size(), 16u);
  EXPECT_NE(systemProfileData(system), clientProfileData(system));
}

TEST(ProfileDataTest, AnyThreadMayAskForTheTokens) {
  const platform::LinuxSystemInformation system(platform::defaultPlatformConfiguration("/"),
                                                "/proc");
  const Data expected = systemProfileData(system);
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int question = 0; question < 1000; ++question)
        ASSERT_EQ(systemProfileData(system), expected);
    });
  }
}

}  // namespace
