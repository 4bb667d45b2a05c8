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
  write(RefusalLog::kLinesPerPeriod - 1);
  EXPECT_EQ(sink_.texts().size(), RefusalLog::kLinesPerPeriod - 1);
  write(1);
  EXPECT_EQ(sink_.texts().size(), RefusalLog::kLinesPerPeriod);
  write(1);
  EXPECT_EQ(sink_.texts().size(), RefusalLog::kLinesPerPeriod);
}

TEST_F(RefusalLogTest, TheNextPeriodsFirstLineCountsTheMissingOnes) {
  write(RefusalLog::kLinesPerPeriod + 2);
  loop_.advanceBy(RefusalLog::kPeriod - 1ns);
  write(1);
  EXPECT_EQ(sink_.texts().size(), RefusalLog::kLinesPerPeriod);
  loop_.advanceBy(1ns);
  sink_.clear();
  write(2);
  EXPECT_THAT(
      sink_.texts(),
      testing::ElementsAre("refused (3 lines like this one were left out before it)", "refused"));
}

}  // namespace
}  // namespace platform
