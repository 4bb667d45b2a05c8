#include "Platform/SystemFacts/Gestalt.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(GestaltTest, ThePackedVersionClampsNumbersThatDoNotFit) {
  const struct {
    OperatingSystemVersion version;
    std::int32_t packed;
  } cases[] = {{{10, 3, 9}, 0x1039},
               {{10, 4, 0}, 0x1040},
               {{10, 9, 5}, 0x1095},
               {{10, 9, 9}, 0x1099},
               {{10, 10, 0}, 0x1090},
               {{10, 4, 11}, 0x1049},
               {{10, 11, 10}, 0x1099},
               {{9, 2, 2}, 0x0922},
               {{0, 0, 0}, 0},
               {{99, 0, 0}, 0x9900},
               {{100, 0, 0}, 0x9900},
               {{11, 0, 1}, 0x1101},
               {{UINT64_MAX, UINT64_MAX, UINT64_MAX}, 0x9999}};
  for (const auto& [version, packed] : cases) {
    EXPECT_EQ(gestaltOfVersion(version, "sysv"), packed) << std::hex << packed;
  }
}

TEST(GestaltTest, TheSingleNumbersAreNotClampedToDigits) {
  const OperatingSystemVersion version{10, 11, 12};
  EXPECT_EQ(gestaltOfVersion(version, "sys1"), 10);
  EXPECT_EQ(gestaltOfVersion(version, "sys2"), 11);
  EXPECT_EQ(gestaltOfVersion(version, "sys3"), 12);
  EXPECT_EQ(gestaltOfVersion({0, UINT64_MAX, 0}, "sys2"), INT32_MAX);
}

TEST(GestaltTest, AnotherSelectorIsNotFound) {
  for (const char* selector : {"", "sys4", "sys", "SYSV", "sysv "}) {
    const auto answer = gestaltOfVersion({10, 11, 0}, selector);
    ASSERT_FALSE(answer) << selector;
    EXPECT_EQ(answer.error().code, ErrorCode::kNotFound);
  }
}

}  // namespace
}  // namespace platform
