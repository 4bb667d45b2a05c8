#include "Platform/Linux/SystemFacts/ProgramArguments.h"

#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform {
namespace {

using testing::HasSubstr;

std::optional<int> answerOf(const std::vector<const char*>& arguments) {
  return answerArguments(static_cast<int>(arguments.size()), arguments.data(), "the help\n");
}

TEST(ProgramArgumentsTest, WithoutArgumentsTheProgramStarts) {
  EXPECT_EQ(answerOf({}), std::nullopt);
  EXPECT_EQ(answerOf({"/usr/bin/program"}), std::nullopt);
}

TEST(ProgramArgumentsTest, HelpAndVersionAreAnswered) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(answerOf({"/usr/bin/program", "--help"}), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "the help\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(answerOf({"/usr/bin/program", "--version"}), 0);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::MatchesRegex("program [0-9.]+\n"));
}

TEST(ProgramArgumentsTest, AllElseIsRejectedByName) {
  for (const auto& arguments : std::vector<std::vector<const char*>>{
           {"program", "--start"}, {"program", "--start", "x"}, {"program", "--help", "--start"}}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(answerOf(arguments), 2);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("no argument \"--start\""));
  }
}

}  // namespace
}  // namespace platform
