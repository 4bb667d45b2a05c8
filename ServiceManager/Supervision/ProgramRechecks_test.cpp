#include "ServiceManager/Supervision/ProgramRechecks.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class ProgramRechecksTest : public testing::Test {
 protected:
  VirtualRunLoop loop_;
  std::vector<std::string> checked_;
  ProgramRechecks rechecks_{loop_, [this](const std::string& label) { checked_.push_back(label); }};
};

TEST_F(ProgramRechecksTest, ThePauseGrowsUntilAVerdict) {
  std::vector<Duration> pauses;
  for (int i = 0; i < 9; ++i) {
    rechecks_.couldNotCheck("a");
    const Instant before = loop_.now();
    while (checked_.empty()) loop_.advanceBy(100ms);
    checked_.clear();
    pauses.push_back(loop_.now() - before);
  }
  EXPECT_THAT(pauses, ElementsAre(500ms, 1s, 2s, 4s, 8s, 16s, 32s, 60s, 60s));
  rechecks_.hasChecked("a");
  rechecks_.couldNotCheck("a");
  loop_.advanceBy(500ms);
  EXPECT_THAT(checked_, ElementsAre("a"));
}

TEST_F(ProgramRechecksTest, AVerdictOnOneProgramChecksTheOthersAtOnce) {
  for (const char* label : {"a", "b", "c"}) rechecks_.couldNotCheck(label);
  rechecks_.hasChecked("b");
  EXPECT_THAT(checked_, IsEmpty());
  loop_.runReady();
  EXPECT_THAT(checked_, ElementsAre("a", "c"));
  loop_.advanceBy(1h);
  EXPECT_THAT(checked_, ElementsAre("a", "c"));
}

TEST_F(ProgramRechecksTest, AProgramThatWasCheckedIsNotCheckedAgain) {
  rechecks_.couldNotCheck("a");
  rechecks_.hasChecked("a");
  loop_.advanceBy(1h);
  EXPECT_THAT(checked_, IsEmpty());
}

TEST_F(ProgramRechecksTest, ThePauseGrowsWithEveryRefusal) {
  rechecks_.wasRefused("a");
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_EQ(checked_.size(), 1u);
  rechecks_.hasChecked("a");  // It is valid, and refused again.
  rechecks_.wasRefused("a");
  loop_.advanceBy(2 * ProgramRechecks::kFirstPause - 1ns);
  EXPECT_EQ(checked_.size(), 1u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(checked_.size(), 2u);
  rechecks_.wasAccepted("a");
  rechecks_.wasRefused("a");
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_EQ(checked_.size(), 3u);
}

TEST_F(ProgramRechecksTest, ARefusalThatIsReportedTwiceCountsOnce) {
  rechecks_.wasRefused("a");
  rechecks_.wasRefused("a");
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_THAT(checked_, ElementsAre("a"));
  rechecks_.wasRefused("a");
  rechecks_.wasRefused("a");
  loop_.advanceBy(2 * ProgramRechecks::kFirstPause - 1ns);
  EXPECT_THAT(checked_, ElementsAre("a"));
  loop_.advanceBy(1ns);
  EXPECT_THAT(checked_, ElementsAre("a", "a"));
}

TEST_F(ProgramRechecksTest, RefusedProgramsDoNotCheckEachOtherAtOnce) {
  rechecks_.wasRefused("a");
  rechecks_.wasRefused("b");
  rechecks_.hasChecked("a");
  rechecks_.wasRefused("a");
  rechecks_.couldNotCheck("c");
  rechecks_.hasChecked("d");
  loop_.advanceBy(ProgramRechecks::kFirstPause - 1ns);
  EXPECT_THAT(checked_, ElementsAre("c"));
}

TEST_F(ProgramRechecksTest, AStoppedServiceIsNotCheckedAgain) {
  rechecks_.couldNotCheck("a");
  rechecks_.wasRefused("b");
  rechecks_.forget("a");
  rechecks_.forget("b");
  loop_.advanceBy(1min);
  EXPECT_THAT(checked_, testing::IsEmpty());
}

TEST_F(ProgramRechecksTest, AStopForgetsTheRefusals) {
  rechecks_.wasRefused("a");
  rechecks_.forget("a");
  rechecks_.wasRefused("a");
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_THAT(checked_, ElementsAre("a"));
}

TEST_F(ProgramRechecksTest, TheWaitingServicesAreKnown) {
  rechecks_.couldNotCheck("a");
  rechecks_.couldNotCheck("b");
  rechecks_.hasChecked("b");
  EXPECT_THAT(rechecks_.waiting(), testing::ElementsAre("a"));
}

}  // namespace
