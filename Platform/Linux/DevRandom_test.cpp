#include "Platform/Linux/DevRandom.h"

#include <array>
#include <cerrno>

#include <gtest/gtest.h>

#include "Platform/Testing/TemporaryFolder.h"

namespace platform {
namespace {

using Bytes = std::array<std::uint8_t, 8>;

TEST(DevRandomTest, GivesOtherBytesEachTime) {
  DevRandom device;
  Bytes one{};
  Bytes other{};
  EXPECT_EQ(device.read(one).value(), 8u);
  EXPECT_EQ(device.read(other).value(), 8u);
  EXPECT_NE(one, other);
}

TEST(DevRandomTest, ReadsWhatThereIs) {
  const TemporaryFolder folder;
  DevRandom device(folder.write("seven", "1234567"));
  Bytes bytes{};
  EXPECT_EQ(device.read(bytes).value(), 7u);
  EXPECT_EQ(bytes, (Bytes{'1', '2', '3', '4', '5', '6', '7'}));
}

TEST(DevRandomTest, ADeviceThatCannotBeReadGivesNoBytes) {
  const TemporaryFolder folder;
  DevRandom device(folder.path());
  Bytes bytes{};
  EXPECT_EQ(device.read(bytes).value(), 0u);
}

TEST(DevRandomTest, ADeviceThatIsMissingIsTheSystemsError) {
  const TemporaryFolder folder;
  DevRandom device(folder.path("missing"));
  Bytes bytes{};
  const auto read = device.read(bytes);
  ASSERT_FALSE(read);
  EXPECT_EQ(read.error().osError, ENOENT);
  EXPECT_EQ(read.error().context, "opening " + folder.path("missing"));
}

}  // namespace
}  // namespace platform
