#include "Tools/servicemanagerctl/BenchLines.h"

#include <chrono>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

class BenchLinesTest : public testing::Test {
 protected:
  std::optional<std::string> tell(const std::string& text, platform::Duration at = 0s) {
    return lines_.tell("2026-11-22T05:59:07.511875Z vm jobhost[7] (user) <Info> " + text,
                       platform::Instant() + at);
  }

  BenchLines lines_{"com.example.agent", 10s};
};

TEST_F(BenchLinesTest, AnEndIsToldWithTheNextStart) {
  EXPECT_EQ(tell("job \"com.example.agent\": started process 9"), "started process 9");
  EXPECT_EQ(tell("job \"com.example.agent\": process 9 ended (status 0)", 2500ms),
            "process 9 ended (status 0); the job host starts it again in 7.5 s, because "
            "\"ThrottleInterval\" is 10");
  EXPECT_EQ(tell("job \"com.example.agent\": process 9 ended (signal 9)", 10s),
            "process 9 ended (signal 9); the job host starts it again at once");
}

TEST_F(BenchLinesTest, NothingIsStartedAfterTheEnd) {
  tell("job \"com.example.agent\": started process 9");
  lines_.end();
  EXPECT_EQ(tell("job \"com.example.agent\": process 9 ended (status 0)"),
            "process 9 ended (status 0)");
  EXPECT_EQ(tell("job \"com.example.agent\": removed"), "ended");
}

TEST_F(BenchLinesTest, OtherLinesSayNothing) {
  EXPECT_EQ(tell("job \"com.example.other\": started process 9"), std::nullopt);
  EXPECT_EQ(tell("ready"), std::nullopt);
  EXPECT_FALSE(lines_.isRejected());
}

TEST_F(BenchLinesTest, ARejectedJobIsTold) {
  EXPECT_EQ(tell("/root/Library/LaunchDaemons/job.plist: job \"com.example.agent\": key \"Nice\""),
            "key \"Nice\"");
  EXPECT_TRUE(lines_.isRejected());
}

}  // namespace
