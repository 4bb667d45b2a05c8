// Submitting, restarting and copying.

#include <cerrno>
#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::Error;
using platform::ErrorCode;
using platform::ExitStatus;
using platform::LaunchdError;
using platform::Value;
using testing::ElementsAre;
using testing::HasSubstr;

TEST_F(JobHostTest, ASubmissionIsAnsweredWhenTheJobHasAProcess) {
  ASSERT_TRUE(submit(job("com.example.a", {{"Unknown", "kept"}})));
  EXPECT_EQ(copied("com.example.a"),
            Value(job("com.example.a", {{"Unknown", "kept"}, {"PID", 101}})));
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a"));
}

TEST_F(JobHostTest, AJobThatNothingStartsIsKnownWithoutAProcess) {
  ASSERT_TRUE(submit(job("com.example.a", {{"KeepAlive", false}})));
  EXPECT_EQ(starts(), 0);
  EXPECT_EQ(copied("com.example.a"), Value(job("com.example.a", {{"KeepAlive", false}})));
}

TEST_F(JobHostTest, AnUnknownLabelHasNoDictionaryAndCannotBeRemoved) {
  EXPECT_TRUE(host_->copy("com.example.a").isNil());
  const auto outcome = removeLater("com.example.a")->value();
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().domain, platform::kCFErrorDomainLaunchd);
  EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kNoSuchJob));
  EXPECT_THAT(outcome.error().localizedDescription, HasSubstr("com.example.a"));
}

TEST_F(JobHostTest, ASubmittedProcessIdOrExitStatusIsIgnored) {
  ASSERT_TRUE(submit(job("com.example.a", {{"KeepAlive", false},
                                           {"PID", 1},
                                           {"LastExitStatus", 3},
                                           {"LastExitStatusUnknown", true},
                                           {"History", Dictionary()}})));
  EXPECT_EQ(copied("com.example.a"), Value(job("com.example.a", {{"KeepAlive", false}})));
}

TEST_F(JobHostTest, AFirstStartThatFailsLeavesNoJob) {
  processes_.failure = Error{ErrorCode::kSystem, ENOENT, "executing \"/bin/true\""};
  for (const bool recorded : {false, true}) {
    processes_.recordsFailures = recorded;
    const auto outcome = submit(job("com.example.a"));
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kInternal));
    EXPECT_EQ(outcome.error().localizedDescription,
              "executing \"/bin/true\": No such file or directory");
    EXPECT_TRUE(host_->labels().empty());
  }
  restartHost();
  EXPECT_TRUE(host_->labels().empty());
}

TEST_F(JobHostTest, ALaterStartThatFailsIsRetriedAtTheThrottle) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(1h);
  processes_.failure = Error{ErrorCode::kSystem, ENOENT, "executing"};
  processes_.recordsFailures = true;
  endLast();
  EXPECT_EQ(processes_.attempts, 2);
  EXPECT_TRUE(pid("com.example.a").isNil());
  loop_.advanceBy(10s - 1ns);
  EXPECT_EQ(processes_.attempts, 2);
  loop_.advanceBy(1ns);
  EXPECT_EQ(processes_.attempts, 3);
  processes_.failure.reset();
  loop_.advanceBy(10s);
  EXPECT_EQ(pid("com.example.a"), Value(processes_.started.back().process));
  EXPECT_EQ(sink_.count("tried again"), 2);
}

TEST_F(JobHostTest, WithoutAThrottleAFailedStartIsRetriedOnceASecond) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  processes_.failure = Error{ErrorCode::kSystem, ENOENT, "executing"};
  endLast();
  loop_.advanceBy(10s);
  EXPECT_EQ(processes_.attempts, 1 + 1 + 10);
}

TEST_F(JobHostTest, AJobOlderThanItsThrottleIsStartedAgainAtOnce) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  endLast(kSegmentationFault);
  EXPECT_EQ(starts(), 2);
  EXPECT_EQ(copied("com.example.a"),
            Value(job("com.example.a", {{"PID", 102}, {"LastExitStatus", SIGSEGV}})));
}

TEST_F(JobHostTest, AYoungerJobIsStartedAgainWhenTheThrottleAllowsIt) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s - 1ns);
  endLast(ExitStatus{ExitStatus::Kind::kExited, 7});
  EXPECT_EQ(starts(), 1);
  EXPECT_EQ(copied("com.example.a"), Value(job("com.example.a", {{"LastExitStatus", 7 << 8}})));
  loop_.advanceBy(1ns);
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, AJobThatIsNotKeptAliveStaysKnownAfterItsEnd) {
  ASSERT_TRUE(submit(job("com.example.a", {{"KeepAlive", false}, {"RunAtLoad", true}})));
  endLast();
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 1);
  EXPECT_EQ(host_->copy("com.example.a")["LastExitStatus"], Value(0));
  EXPECT_TRUE(pid("com.example.a").isNil());
}

TEST_F(JobHostTest, SubmittingAKnownLabelChangesTheNextStartOnly) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  ASSERT_TRUE(submit(job("com.example.a", {{"Program", "/bin/false"}})));
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_EQ(host_->copy("com.example.a")["Program"], Value("/bin/false"));
  endLast();
  EXPECT_EQ(processes_.started.back().program, "/bin/false");
}

TEST_F(JobHostTest, SubmittingACrashingJobAgainDoesNotBypassTheThrottle) {
  ASSERT_TRUE(submit(job("com.example.a")));
  endLast(kSegmentationFault);
  for (int i = 0; i < 9; ++i) {
    loop_.advanceBy(1s);
    ASSERT_TRUE(submit(job("com.example.a")));
    EXPECT_TRUE(pid("com.example.a").isNil());
  }
  EXPECT_EQ(starts(), 1);
  loop_.advanceBy(1s);
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, SubmittingAnIdleJobStartsItAgain) {
  const Dictionary once = job("com.example.a", {{"KeepAlive", false}, {"RunAtLoad", true}});
  ASSERT_TRUE(submit(once));
  endLast();
  loop_.advanceBy(10s);
  ASSERT_TRUE(submit(once));
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, AnAnswerIsNeverOlderThanAnExit) {
  ASSERT_TRUE(submit(job("com.example.a")));
  Value seen;
  loop_.post([&] {
    // As when a client that was woken by the exit asks at once.
    processes_.end(101, kSegmentationFault);
    seen = host_->copy("com.example.a");
  });
  loop_.runReady();
  EXPECT_TRUE(seen["PID"].isNil());
  EXPECT_EQ(seen["LastExitStatus"], Value(SIGSEGV));
}

TEST_F(JobHostTest, TheMaximumNumberOfJobsIsAcceptedAndNotOneMore) {
  killHost();
  startHost(3);
  for (const char* label : {"a", "b", "c"}) ASSERT_TRUE(submit(job(label)));
  const auto outcome = submit(job("d"));
  ASSERT_FALSE(outcome);
  EXPECT_THAT(outcome.error().localizedDescription, HasSubstr("at most 3 jobs"));
  EXPECT_EQ(outcome.error().code, static_cast<int>(platform::LaunchdError::kHostIsFull));
  EXPECT_TRUE(submit(job("c")));
  EXPECT_TRUE(removeLater("a")->value());
  EXPECT_TRUE(submit(job("d")));
}

TEST_F(JobHostTest, AnUnknownUserOrGroupIsRejectedEvenWithoutAStart) {
  const auto refusal = [&](Dictionary more) {
    more.set("KeepAlive", false);  // No process is wanted yet.
    const auto outcome = submit(job("com.example.a", std::move(more)));
    EXPECT_FALSE(outcome);
    if (outcome) return std::string();
    EXPECT_EQ(outcome.error().code, static_cast<int>(platform::LaunchdError::kInvalidJob));
    return outcome.error().localizedDescription;
  };
  EXPECT_EQ(refusal({{"UserName", "no-such-user"}}),
            "job \"com.example.a\": key \"UserName\": the user \"no-such-user\" does not exist");
  EXPECT_EQ(refusal({{"UserName", "nobody"}, {"GroupName", "no-such-group"}}),
            "job \"com.example.a\": key \"GroupName\": the group \"no-such-group\" does not exist");
  EXPECT_EQ(refusal({{"GroupName", "no-such-group"}}),
            "job \"com.example.a\": key \"GroupName\": the group \"no-such-group\" does not exist");
  EXPECT_TRUE(host_->labels().empty());
  ASSERT_TRUE(submit(job("com.example.a", {{"UserName", "nobody"}})));
  refusal({{"UserName", "no-such-user"}});
  EXPECT_EQ(host_->copy("com.example.a")["UserName"], Value("nobody"));
}

}  // namespace
}  // namespace jobhost
