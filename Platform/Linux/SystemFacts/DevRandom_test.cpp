#include "Platform/Linux/SystemFacts/DevRandom.h"

#include <array>
#include <cerrno>

#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace platform {
namespace {

using EightBytes = std::array<std::uint8_t, 8>;

TEST(DevRandomTest, GivesDifferentBytesEachTime) {
  DevRandom device;
  EightBytes one{};
  EightBytes other{};
  EXPECT_EQ(device.read(one).value(), 8u);
  EXPECT_EQ(device.read(other).value(), 8u);
  EXPECT_NE(one, other);
}

TEST(DevRandomTest, ReadsTheAvailableBytes) {
  const TemporaryFolder folder;
  DevRandom device(folder.write("seven", "1234567"));
  EightBytes bytes{};
  EXPECT_EQ(device.read(bytes).value(), 7u);
  EXPECT_EQ(bytes, (EightBytes{'1', '2', '3', '4', '5', '6', '7'}));
}

TEST(DevRandomTest, ADeviceThatCannotBeReadGivesNoBytes) {
  const TemporaryFolder folder;
  DevRandom device(folder.path());
  EightBytes bytes{};
  EXPECT_EQ(device.read(bytes).value(), 0u);
}

TEST(DevRandomTest, ADeviceThatIsMissingIsTheSystemsError) {
  const TemporaryFolder folder;
  DevRandom device(folder.path("missing"));
  EightBytes bytes{};
  const auto read = device.read(bytes);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().osError, ENOENT);
  EXPECT_EQ(read.error().context, "opening " + folder.path("missing"));
}

}  // namespace
}  // namespace platform
