#include "JobHost/Output/OutputLines.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OutputLinesTest : public testing::Test {
 protected:
  std::vector<std::string> taken_;
  bool isFull_ = false;
  platform::Instant now_{1h};
  bool isUrgent_ = false;  // the last line
  OutputLines lines_{[this](std::string_view line, bool isUrgent) {
    isUrgent_ = isUrgent;
    if (!isFull_) taken_.emplace_back(line);
    return !isFull_;
  }};
};

TEST_F(OutputLinesTest, BytesAreCutIntoLines) {
  lines_.add("one\ntw", now_);
  lines_.add("o\n\nthree\n", now_);
  EXPECT_THAT(taken_, ElementsAre("one", "two", "", "three"));
  EXPECT_FALSE(lines_.isUnfinished());
}

TEST_F(OutputLinesTest, ALineWithoutAnEndIsBounded) {
  lines_.add(std::string(3 * OutputLines::kMaximumBytes, 'x'), now_);
  EXPECT_THAT(taken_, SizeIs(3));
  EXPECT_THAT(taken_, Each(SizeIs(OutputLines::kMaximumBytes)));
  EXPECT_FALSE(lines_.isUnfinished());
}

TEST_F(OutputLinesTest, ALineAsLongAsTheBoundIsOneLine) {
  lines_.add(std::string(OutputLines::kMaximumBytes, 'x') + "\nnext\n", now_);
  ASSERT_THAT(taken_, SizeIs(2));
  EXPECT_EQ(taken_[1], "next");
}

TEST_F(OutputLinesTest, AnUnfinishedLineWaitsForItsEnd) {
  lines_.add("login: ", now_);
  EXPECT_TRUE(lines_.isUnfinished());
  lines_.tick(now_ + OutputLines::kQuietTime - 1ns);
  EXPECT_THAT(taken_, IsEmpty());
  lines_.tick(now_ + OutputLines::kQuietTime);
  EXPECT_THAT(taken_, ElementsAre("login: "));
  EXPECT_FALSE(lines_.isUnfinished());
}

TEST_F(OutputLinesTest, TheEndOfTheOutputEndsItsLine) {
  lines_.add("last words", now_);
  lines_.end();
  EXPECT_THAT(taken_, ElementsAre("last words"));
}

TEST_F(OutputLinesTest, AFloodIsBoundedAndItsLostLinesAreCounted) {
  const std::string line(1000, 'x');
  const std::size_t fit = OutputLines::kMostBytes / (line.size() + OutputLines::kOverhead);
  for (std::size_t i = 0; i < fit + 7; ++i) lines_.add(line + "\n", now_);
  lines_.add("short\n", now_ + OutputLines::kTime - 1ns);
  EXPECT_THAT(taken_, SizeIs(fit));
  taken_.clear();
  lines_.add("after\n", now_ + OutputLines::kTime);
  EXPECT_THAT(taken_, ElementsAre("[8 lines were lost here]", "after"));
}

TEST_F(OutputLinesTest, LostLinesAreReportedIfNothingFollows) {
  lines_.add("one\n", now_);
  isFull_ = true;
  lines_.add("two\n", now_);
  isFull_ = false;
  lines_.tick(now_);
  EXPECT_THAT(taken_, ElementsAre("one", "[1 line was lost here]"));
  EXPECT_FALSE(lines_.isUnfinished());
  lines_.add("three\n", now_);
  EXPECT_EQ(taken_.back(), "three");
}

TEST_F(OutputLinesTest, LinesAboveTheBoundAreReportedWhenTheTimeIsOver) {
  const std::string line(8000, 'x');
  while (!lines_.isUnfinished()) lines_.add(line + "\n", now_);
  taken_.clear();
  lines_.tick(now_ + OutputLines::kTime - 1ns);
  EXPECT_THAT(taken_, IsEmpty());
  lines_.tick(now_ + OutputLines::kTime);
  EXPECT_THAT(taken_, ElementsAre("[1 line was lost here]"));
  EXPECT_FALSE(lines_.isUnfinished());
}

TEST_F(OutputLinesTest, AQuietLabelHasPriorityOverAFlood) {
  lines_.add("one\n", now_);
  EXPECT_TRUE(isUrgent_);
  const std::string line(8000, 'x');
  for (std::size_t bytes = 0; bytes < OutputLines::kUrgentBytes; bytes += line.size())
    lines_.add(line + "\n", now_);
  EXPECT_FALSE(isUrgent_);
  lines_.add("two\n", now_ + OutputLines::kTime);
  EXPECT_TRUE(isUrgent_);
}

TEST_F(OutputLinesTest, LostLinesStayCountedWithoutRoom) {
  isFull_ = true;
  lines_.add("one\ntwo\n", now_);
  lines_.end();
  EXPECT_TRUE(lines_.isUnfinished());
  isFull_ = false;
  lines_.end();
  EXPECT_THAT(taken_, ElementsAre("[2 lines were lost here]"));
}

}  // namespace
}  // namespace jobhost
