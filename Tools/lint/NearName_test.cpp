#include "Tools/lint/NearName.h"

#include <array>
#include <string>

#include <gtest/gtest.h>

namespace lint {
namespace {

constexpr std::array<std::string_view, 4> kNames{"Program", "ProgramPath", "KeepAlive", "Nice"};

TEST(NearName, ATypingErrorIsRecognized) {
  EXPECT_EQ(nearName("Programm", kNames), "Program");
  EXPECT_EQ(nearName("ProgramPaht", kNames), "ProgramPath");
  EXPECT_EQ(nearName("keepalive", kNames), "KeepAlive");
  EXPECT_EQ(nearName("Nic", kNames), "Nice");
}

TEST(NearName, AnotherWordIsNone) {
  EXPECT_EQ(nearName("Colour", kNames), std::nullopt);
  EXPECT_EQ(nearName("", kNames), std::nullopt);
  EXPECT_EQ(nearName("x", kNames), std::nullopt);
}

TEST(NearName, AVeryLongNameIsNearNone) {
  EXPECT_EQ(nearName(std::string(100'000, 'x'), kNames), std::nullopt);
}

}  // namespace
}  // namespace lint
