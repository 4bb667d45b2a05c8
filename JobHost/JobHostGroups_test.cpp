// Jobs whose processes can't leave their control group, and jobs that abandon them.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "JobHost/JobHostFixture_contract.h"
#include "JobHost/State/StateReader.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Value;
using testing::Contains;
using testing::IsEmpty;

class JobHostGroups : public JobHostTest {
 protected:
  JobHostGroups() { processes_.hasControlGroups = true; }

  platform::Dictionary abandoning(const std::string& label) {
    return job(label, {{"AbandonProcessGroup", true}});
  }
};

TEST_F(JobHostGroups, TheEndOfALeaderKillsItsTree) {
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  endLast();
  EXPECT_FALSE(processes_.isAlive(descendant));
}

TEST_F(JobHostGroups, AProcessWithoutAMarkIsKilledAfterTheExitTimeOut) {
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  processes_.hidesMarks = true;
  const Answer answer = removeLater("com.example.a");
  EXPECT_FALSE(processes_.isAlive(101));
  loop_.advanceBy(20s - 1ns);
  EXPECT_TRUE(processes_.isAlive(descendant));
  EXPECT_FALSE(*answer);
  loop_.advanceBy(20ms);
  EXPECT_FALSE(processes_.isAlive(descendant));
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostGroups, TheTreeOfALeaderThatEndedMeanwhileIsKilled) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  const auto descendant = processes_.addDescendant(101);
  const auto other = processes_.addDescendant(102);
  killHost();
  processes_.end(101);
  startHost();
  EXPECT_FALSE(processes_.isAlive(descendant));
  EXPECT_TRUE(processes_.isAlive(other));
}

TEST_F(JobHostGroups, TheNextHostGoesOnWithARemovalOfATree) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", 3}})));
  const auto descendant = processes_.addDescendant(101);
  removeLater("com.example.a");
  restartHost();
  loop_.runReady();
  EXPECT_TRUE(processes_.isAlive(descendant));
  loop_.advanceBy(3s + 20ms);
  EXPECT_FALSE(processes_.isAlive(descendant));
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostGroups, ASecondLeaderIsKilledAlone) {
  ASSERT_TRUE(submit(job("com.example.a")));
  killHost();
  JobDefinition second;
  second.label = "com.example.a";
  std::vector<std::uint8_t> record =
      makeRecord(RecordKind::kStarted, startPayload({}, second.label));
  ASSERT_TRUE(processes_.start(second, {-1, record}, {}, [](Ending) {}));
  startHost();
  EXPECT_TRUE(processes_.isAlive(101));
  EXPECT_FALSE(processes_.isAlive(102));
}

TEST_F(JobHostGroups, ARemovedJobLeavesNoGroup) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(removeLater("com.example.a")->value());
  EXPECT_THAT(processes_.discarded, Contains("com.example.a"));
  processes_.failure = platform::Error{platform::ErrorCode::kSystem, ENOENT, "executing"};
  ASSERT_FALSE(submit(job("com.example.b")));
  EXPECT_THAT(processes_.discarded, Contains("com.example.b"));
}

TEST_F(JobHostGroups, ACopyTellsTheTree) {
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.addDescendant(101);
  EXPECT_EQ(host_->copy("com.example.a")[platform::kJobTreeKey]["Processes"], Value(2));
  EXPECT_TRUE(host_->copyState("com.example.a")[platform::kJobTreeKey].isNil());
  processes_.hasControlGroups = false;
  EXPECT_TRUE(host_->copy("com.example.a")[platform::kJobTreeKey].isNil());
}

TEST_F(JobHostGroups, ASubmittedTreeIsNoFact) {
  ASSERT_TRUE(submit(job("com.example.a", {{platform::kJobTreeKey, "forged"}})));
  processes_.hasControlGroups = false;
  EXPECT_TRUE(host_->copy("com.example.a")[platform::kJobTreeKey].isNil());
}

TEST_F(JobHostGroups, AnAbandonedGroupSurvivesItsLeader) {
  for (const bool hasControlGroups : {true, false}) {
    processes_.hasControlGroups = hasControlGroups;
    ASSERT_TRUE(submit(abandoning("com.example.a")));
    const auto leader = processes_.started.back().process;
    const auto descendant = processes_.addDescendant(leader);
    processes_.addMember(leader);
    endLast();
    EXPECT_TRUE(processes_.hasMembers(leader));
    loop_.advanceBy(20s);
    EXPECT_NE(pid("com.example.a"), Value(leader));
    ASSERT_TRUE(removeLater("com.example.a")->value());
    EXPECT_TRUE(processes_.hasMembers(leader));
    EXPECT_TRUE(processes_.isAlive(descendant));
  }
}

TEST_F(JobHostGroups, ARemovalEndsTheLeaderOfAnAbandonedGroup) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(abandoning("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  processes_.addMember(101);
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(20s - 1ns);
  EXPECT_FALSE(*answer);
  loop_.advanceBy(1ns);
  EXPECT_TRUE(*answer);
  EXPECT_FALSE(processes_.isAlive(101));
  EXPECT_TRUE(processes_.hasMembers(101));
  EXPECT_TRUE(processes_.isAlive(descendant));
}

TEST_F(JobHostGroups, TheNextHostLeavesAnAbandonedGroupAlone) {
  ASSERT_TRUE(submit(abandoning("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  processes_.addMember(101);
  killHost();
  processes_.end(101);
  startHost();
  EXPECT_TRUE(processes_.hasMembers(101));
  EXPECT_TRUE(processes_.isAlive(descendant));
  ASSERT_TRUE(removeLater("com.example.a")->value());
  restartHost();
  EXPECT_TRUE(processes_.isAlive(descendant));
}

TEST_F(JobHostGroups, TheDefinitionOfItsStartDecidesWhetherAGroupIsAbandoned) {
  ASSERT_TRUE(submit(abandoning("com.example.a")));
  const auto abandoned = processes_.addDescendant(101);
  ASSERT_TRUE(submit(job("com.example.a")));
  restartHost();
  endLast();
  EXPECT_TRUE(processes_.isAlive(abandoned));
  loop_.advanceBy(20s);
  const auto leader = processes_.started.back().process;
  ASSERT_EQ(pid("com.example.a"), Value(leader));
  const auto owned = processes_.addDescendant(leader);
  ASSERT_TRUE(submit(abandoning("com.example.a")));
  endLast();
  EXPECT_FALSE(processes_.isAlive(owned));
  EXPECT_TRUE(processes_.isAlive(abandoned));
}

TEST_F(JobHostGroups, AProcessThatComesLaterIsAskedToEndOnce) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", 0}})));
  const auto stubborn = processes_.addDescendant(101);
  processes_.obeysTermination = false;
  const Answer answer = removeLater("com.example.a");
  endLast();
  loop_.advanceBy(10s);
  const auto late = processes_.addDescendant(101);
  processes_.obeysTermination = true;
  loop_.advanceBy(2s);
  EXPECT_FALSE(processes_.isAlive(late));
  EXPECT_TRUE(processes_.isAlive(stubborn));
  EXPECT_EQ(std::ranges::count(processes_.signals, stubborn, &FakeProcesses::Signalled::group), 1);
  EXPECT_FALSE(*answer);
  processes_.end(stubborn);
  loop_.advanceBy(20ms);
  EXPECT_TRUE(*answer);
}

}  // namespace
}  // namespace jobhost
