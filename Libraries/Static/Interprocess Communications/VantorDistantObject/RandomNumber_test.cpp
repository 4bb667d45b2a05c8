#include "Libraries/Static/Interprocess Communications/VantorDistantObject/RandomNumber.h"

#include <array>
#include <cerrno>

#include <gtest/gtest.h>

#include "Platform/Testing/SystemFacts/FakeRandomDevice.h"

namespace {

using Bytes = std::array<std::uint8_t, 8>;

TEST(RandomNumberTest, FillsTheWholeBuffer) {
  platform::FakeRandomDevice device;
  Bytes bytes{};
  EXPECT_TRUE(generateRandomNumber(device, bytes));
  EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(RandomNumberTest, TooFewBytesAreAFailure) {
  for (const std::size_t size : {0u, 7u}) {
    platform::FakeRandomDevice device;
    device.limitTo(size);
    Bytes bytes{};
    EXPECT_FALSE(generateRandomNumber(device, bytes)) << size;
  }
  platform::FakeRandomDevice device;
  device.limitTo(8);
  Bytes bytes{};
  EXPECT_TRUE(generateRandomNumber(device, bytes));
}

TEST(RandomNumberDeathTest, ADeviceThatCannotBeOpenedEndsTheProcess) {
  platform::FakeRandomDevice device;
  device.failToOpen({platform::ErrorCode::kSystem, ENOENT, "opening /dev/random"});
  Bytes bytes{};
  EXPECT_EXIT(generateRandomNumber(device, bytes), testing::ExitedWithCode(255),
              "^randgetter: No such file or directory\n$");
}

}  // namespace
