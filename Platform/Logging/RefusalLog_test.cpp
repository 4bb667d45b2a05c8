#include "Platform/Logging/RefusalLog.h"

#include <chrono>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class RefusalLogTest : public testing::Test {
 protected:
  void write(std::size_t lines) {
    for (std::size_t line = 0; line < lines; ++line) refusals_.write("refused");
  }

  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  RefusalLog refusals_{loop_, log_, "Ident"};
};

TEST_F(RefusalLogTest, ALineIsAWarningUnderItsOwnIdent) {
  write(1);
  EXPECT_EQ(sink_.messages(), (std::vector<FakeLogSink::Message>{
                                  {"Ident", "com.vantor.platform", ASL_LEVEL_WARNING, "refused"}}));
}

TEST_F(RefusalLogTest, TheLinesOfAPeriodAreLimited) {
  write(UserLines::kLinesPerUser - 1);
  EXPECT_EQ(sink_.texts().size(), UserLines::kLinesPerUser - 1);
  write(1);
  EXPECT_EQ(sink_.texts().size(), UserLines::kLinesPerUser);
  write(1);
  EXPECT_EQ(sink_.texts().size(), UserLines::kLinesPerUser);
}

TEST_F(RefusalLogTest, TheMissingLinesAreCountedIfNobodyAsksAgain) {
  write(UserLines::kLinesPerUser + 2);
  refusals_.leaveOut(3);
  loop_.runReady();
  loop_.advanceBy(UserLines::kPeriod - 1ns);
  EXPECT_EQ(sink_.texts().size(), UserLines::kLinesPerUser);
  sink_.clear();
  loop_.advanceBy(1ns);
  EXPECT_THAT(sink_.texts(),
              testing::ElementsAre("5 lines about failures of this program were left out"));
  write(1);
  EXPECT_EQ(sink_.texts().back(), "refused");
}

TEST_F(RefusalLogTest, EachUserHasItsOwnLines) {
  for (int line = 0; line < 100; ++line) refusals_.write("first", 1000);
  refusals_.write("second", 1001);
  refusals_.write("own");
  EXPECT_EQ(sink_.count("first"), UserLines::kLinesPerUser);
  EXPECT_EQ(sink_.count("second"), 1u);
  EXPECT_EQ(sink_.count("own"), 1u);
}

TEST_F(RefusalLogTest, RootsRefusalsAreLimitedToo) {
  for (int line = 0; line < 100; ++line) refusals_.write("refused", 0);
  EXPECT_EQ(sink_.texts().size(), UserLines::kLinesPerUser);
}

TEST_F(RefusalLogTest, LogsMayShareTheirLimits) {
  const auto lines = std::make_shared<UserLines>(900, loop_, log_, "Ident");
  RefusalLog first(log_, "First", lines);
  RefusalLog second(log_, "Second", lines);
  for (std::size_t line = 0; line < UserLines::kLinesPerUser; ++line) {
    first.write("first", 1000);
    second.write("second", 1000);
  }
  EXPECT_EQ(sink_.texts().size(), UserLines::kLinesPerUser);
}

// The lines of strangers leave room for those of root and of this program.
TEST_F(RefusalLogTest, ManyUsersDoNotSuppressOwnFailures) {
  for (std::uint32_t user = 1000; user < 1010; ++user) {
    for (int line = 0; line < 100; ++line) refusals_.write("stranger", user);
  }
  EXPECT_EQ(sink_.count("stranger"), UserLines::kLinesOfAll);
  refusals_.write("root", 0);
  refusals_.write("own");
  EXPECT_EQ(sink_.count("root"), 1u);
  EXPECT_EQ(sink_.count("own"), 1u);
}

}  // namespace
}  // namespace platform
