// Removing jobs, and shutting down.

#include <cerrno>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::LaunchdError;
using platform::Value;
using testing::ElementsAre;

TEST_F(JobHostTest, RemovingEndsTheGroupAndForgetsTheJob) {
  ASSERT_TRUE(submit(job("com.example.a")));
  EXPECT_TRUE(removeLater("com.example.a")->value());
  EXPECT_EQ(processes_.signals.front().signal, SIGTERM);
  EXPECT_EQ(processes_.signals.front().group, 101);
  EXPECT_TRUE(host_->copy("com.example.a").isNil());
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 1);
}

TEST_F(JobHostTest, RemovingAJobThatWaitsForItsThrottleIsDoneAtOnce) {
  ASSERT_TRUE(submit(job("com.example.a")));
  endLast();
  EXPECT_TRUE(removeLater("com.example.a")->value());
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 1);
}

TEST_F(JobHostTest, AStubbornProcessIsKilledAfterTheExitTimeOut) {
  processes_.obeysTermination = false;
  for (const auto& [more, timeOut] :
       {std::pair<Dictionary, platform::Duration>{{}, 20s}, {{{"ExitTimeOut", 3}}, 3s}}) {
    ASSERT_TRUE(submit(job("com.example.a", more)));
    processes_.signals.clear();
    const Answer answer = removeLater("com.example.a");
    loop_.advanceBy(timeOut - 1ns);
    EXPECT_FALSE(*answer);
    EXPECT_EQ(processes_.signals.size(), 1);
    EXPECT_FALSE(pid("com.example.a").isNil());
    loop_.advanceBy(1ns);
    ASSERT_TRUE(*answer);
    EXPECT_TRUE(answer->value());
    EXPECT_EQ(processes_.signals.back().signal, SIGKILL);
  }
}

TEST_F(JobHostTest, AProcessThatSurvivesSigkillIsReportedOnce) {
  processes_.obeysTermination = processes_.obeysKill = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(25s - 1ns);
  EXPECT_EQ(sink_.count("has not ended 5 s after SIGKILL; its removal waits"), 0);
  loop_.advanceBy(1h);
  EXPECT_EQ(sink_.count("process group 101 has not ended 5 s after SIGKILL"), 1);
  EXPECT_FALSE(*answer);
  endLast();
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostTest, ARefusedSignalIsReported) {
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.refusal = platform::Error{platform::ErrorCode::kDenied, EPERM, "signalling"};
  removeLater("com.example.a");
  EXPECT_EQ(sink_.count("job \"com.example.a\": signalling: Operation not permitted"), 1);
}

TEST_F(JobHostTest, AnExitTimeOutOfZeroNeverKills) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", 0}})));
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(24h);
  EXPECT_FALSE(*answer);
  endLast();
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostTest, AnExitTimeOutOfZeroHoldsUpNoOtherJob) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", 0}})));
  ASSERT_TRUE(submit(job("com.example.b")));
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(24h);
  processes_.obeysTermination = true;
  EXPECT_TRUE(*removeLater("com.example.b"));
  EXPECT_TRUE(submit(job("com.example.c")));
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_FALSE(*answer);
}

TEST_F(JobHostTest, RemovingWaitsForMembersWhoseLeaderHasEnded) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.addMember(101);
  const Answer answer = removeLater("com.example.a");
  endLast();
  loop_.advanceBy(1s);
  EXPECT_FALSE(*answer);
  EXPECT_TRUE(pid("com.example.a").isNil());
  processes_.endMembers(101);
  loop_.advanceBy(20ms);
  ASSERT_TRUE(*answer);
  EXPECT_TRUE(answer->value());
}

TEST_F(JobHostTest, MembersWhoseLeaderHasEndedAreKilledToo) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.addMember(101);
  const Answer answer = removeLater("com.example.a");
  endLast();
  loop_.advanceBy(20s + 20ms);
  EXPECT_TRUE(*answer);
  EXPECT_EQ(processes_.signals.back().signal, SIGKILL);
}

TEST_F(JobHostTest, RemainingProcessesAreKilledWhenTheirLeaderEnds) {
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.addMember(101);
  endLast();
  EXPECT_FALSE(processes_.hasMembers(101));
}

TEST_F(JobHostTest, EachRemovalOfTheSameJobIsAnswered) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer first = removeLater("com.example.a");
  const Answer second = removeLater("com.example.a");
  EXPECT_FALSE(*first || *second);
  endLast();
  EXPECT_TRUE(*first && *second);
}

TEST_F(JobHostTest, ASubmissionDuringARemovalMakesANewJob) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer removed = removeLater("com.example.a");
  const Answer submitted = submitLater(job("com.example.a", {{"Program", "/bin/false"}}));
  EXPECT_FALSE(*removed || *submitted);
  EXPECT_EQ(host_->copy("com.example.a")["Program"], Value("/bin/true"));
  endLast();
  EXPECT_TRUE(*removed && *submitted);
  loop_.advanceBy(10s);
  EXPECT_EQ(processes_.started.back().program, "/bin/false");
  EXPECT_EQ(pid("com.example.a"), Value(102));
}

TEST_F(JobHostTest, ARemovalAfterAWaitingSubmissionRemovesTheNewJob) {
  processes_.obeysTermination = false;
  const Dictionary unthrottled = job("com.example.a", {{"ThrottleInterval", 0}});
  ASSERT_TRUE(submit(unthrottled));
  const Answer removed = removeLater("com.example.a");
  const Answer submitted = submitLater(unthrottled);
  const Answer removedAgain = removeLater("com.example.a");
  endLast();
  EXPECT_TRUE(*removed && *submitted);
  EXPECT_FALSE(*removedAgain);
  endLast();
  EXPECT_TRUE(*removedAgain);
  EXPECT_TRUE(host_->labels().empty());
}

TEST_F(JobHostTest, TheThrottleOutlivesARemoval) {
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(submit(job("com.example.a")));
    ASSERT_TRUE(removeLater("com.example.a")->value());
  }
  EXPECT_EQ(starts(), 1);
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s - 1ns);
  EXPECT_EQ(starts(), 1);
  loop_.advanceBy(1ns);
  EXPECT_EQ(starts(), 2);
  loop_.advanceBy(10s);
  ASSERT_TRUE(removeLater("com.example.a")->value());
  ASSERT_TRUE(submit(job("com.example.a")));
  EXPECT_EQ(starts(), 3);
}

TEST_F(JobHostTest, AThrottleThatIsOverDelaysNoLongerOne) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(removeLater("com.example.a")->value());
  loop_.advanceBy(10s);
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 3600}})));
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, ARefusedSubmissionDoesNotEndTheThrottle) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(removeLater("com.example.a")->value());
  processes_.failure = platform::Error{platform::ErrorCode::kSystem, ENOENT, "executing"};
  EXPECT_FALSE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  EXPECT_EQ(processes_.attempts, 2);
  processes_.failure.reset();
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s - 1ns);
  EXPECT_EQ(starts(), 1);
  loop_.advanceBy(1ns);
  EXPECT_EQ(starts(), 2);
}

// Shutting down.

TEST_F(JobHostTest, ShuttingDownStopsLoadedJobsThenSubmittedOnesThenTheBus) {
  killHost();
  root_.write("Library/LaunchDaemons/com.example.daemon.plist",
              "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
              "<key>Label</key><string>com.example.daemon</string>"
              "<key>Program</key><string>/bin/true</string>"
              "<key>KeepAlive</key><true/></dict></plist>");
  startHost();
  loop_.runReady();
  ASSERT_TRUE(submit(job(kNotificationBusLabel)));
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  ASSERT_EQ(starts(), 4);
  const auto daemon = processes_.started[0].process;
  const auto bus = processes_.started[1].process;
  const auto first = processes_.started[2].process;
  const auto second = processes_.started[3].process;
  processes_.obeysTermination = false;
  processes_.signals.clear();
  bool done = false;
  host_->shutDown([&] { done = true; });
  const auto groups = [&] {
    std::vector<platform::ProcessId> result;
    for (const auto& entry : processes_.signals) result.push_back(entry.group);
    return result;
  };
  loop_.advanceBy(1s);
  EXPECT_THAT(groups(), ElementsAre(daemon));
  processes_.end(daemon);
  loop_.runReady();
  EXPECT_THAT(groups(), ElementsAre(daemon, first, second));
  processes_.end(second);
  loop_.runReady();
  EXPECT_EQ(groups().size(), 3);
  processes_.end(first);
  loop_.runReady();
  EXPECT_THAT(groups(), ElementsAre(daemon, first, second, bus));
  EXPECT_FALSE(done);
  processes_.end(bus);
  loop_.runReady();
  EXPECT_TRUE(done);
  killHost();
  root_.write("Library/LaunchDaemons/com.example.daemon.plist", "");
  startHost();
  EXPECT_TRUE(host_->labels().empty());
}

TEST_F(JobHostTest, WithoutJobsShuttingDownIsDoneButNotInsideTheCall) {
  bool done = false;
  host_->shutDown([&] { done = true; });
  EXPECT_FALSE(done);
  loop_.runReady();
  EXPECT_TRUE(done);
}

TEST_F(JobHostTest, WhileShuttingDownSubmissionsAreRejected) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer removed = removeLater("com.example.a");
  const Answer waiting = submitLater(job("com.example.a"));
  host_->shutDown([] {});
  for (const char* label : {"com.example.a", "com.example.b"}) {
    const auto outcome = submit(job(label));
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kUnavailable));
  }
  endLast();
  EXPECT_TRUE(removed->value());
  ASSERT_TRUE(*waiting);
  EXPECT_FALSE(waiting->value());
  EXPECT_EQ(starts(), 1);
}

TEST_F(JobHostTest, ShuttingDownKillsAlsoJobsThatAreOtherwiseNeverKilled) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.before", {{"ExitTimeOut", 0}})));
  ASSERT_TRUE(submit(job("com.example.during", {{"ExitTimeOut", 0}})));
  ASSERT_TRUE(submit(job("com.example.long", {{"ExitTimeOut", 21}})));
  removeLater("com.example.before");
  loop_.advanceBy(24h);
  EXPECT_TRUE(processes_.isAlive(101));
  bool isStopped = false;
  host_->shutDown([&] { isStopped = true; });
  loop_.advanceBy(20s - 1ns);
  EXPECT_TRUE(processes_.isAlive(101) && processes_.isAlive(102));
  loop_.advanceBy(1ns);
  EXPECT_FALSE(processes_.isAlive(101) || processes_.isAlive(102));
  EXPECT_TRUE(processes_.isAlive(103));
  EXPECT_FALSE(isStopped);
  loop_.advanceBy(1s);
  EXPECT_TRUE(isStopped);
}

TEST_F(JobHostTest, ShuttingDownLimitsLongExitTimeOuts) {
  processes_.obeysTermination = false;
  const platform::Duration most = kMaximumShutDownTimeOut;
  for (const int seconds : {24, 25, 26, 3600}) {
    const std::string label = "com.example.after" + std::to_string(seconds);
    ASSERT_TRUE(submit(job(label, {{"ExitTimeOut", seconds}})));
  }
  ASSERT_TRUE(submit(job("com.example.removed", {{"ExitTimeOut", 3600}})));
  ASSERT_TRUE(submit(job("com.example.soon", {{"ExitTimeOut", 3600}})));
  ASSERT_TRUE(submit(job(kNotificationBusLabel, {{"ExitTimeOut", 3600}})));
  removeLater("com.example.soon");
  loop_.advanceBy(3590s);
  removeLater("com.example.removed");
  bool isStopped = false;
  host_->shutDown([&] { isStopped = true; });
  const auto alive = [&] {
    std::vector<platform::ProcessId> result;
    for (int process = 101; process <= 107; ++process) {
      if (processes_.isAlive(process)) result.push_back(process);
    }
    return result;
  };
  loop_.advanceBy(10s);  // A removal under way keeps its time-out if that is shorter.
  EXPECT_THAT(alive(), ElementsAre(101, 102, 103, 104, 105, 107));
  loop_.advanceBy(14s);
  EXPECT_THAT(alive(), ElementsAre(102, 103, 104, 105, 107));
  loop_.advanceBy(1s - 1ns);
  EXPECT_THAT(alive(), ElementsAre(102, 103, 104, 105, 107));
  loop_.advanceBy(1ns);
  EXPECT_THAT(alive(), ElementsAre(107));
  loop_.advanceBy(most - 1ns);
  EXPECT_FALSE(isStopped);
  loop_.advanceBy(1ns);
  EXPECT_TRUE(isStopped);
}

}  // namespace
}  // namespace jobhost
