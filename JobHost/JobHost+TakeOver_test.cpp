// The state that one host leaves to the next.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::Value;
using testing::ElementsAre;

TEST_F(JobHostTest, TheNextHostKnowsEveryJobAndItsProcess) {
  ASSERT_TRUE(submit(job("com.example.a", {{"Unknown", platform::Array{1, 2.5, "x"}}})));
  ASSERT_TRUE(submit(job("com.example.b")));
  loop_.advanceBy(20s);
  endLast(kSegmentationFault);
  ASSERT_TRUE(submit(job("com.example.idle", {{"KeepAlive", false}})));
  const Value a = copied("com.example.a");
  const Value b = copied("com.example.b");
  for (int i = 0; i < 3; ++i) {
    restartHost();
    loop_.runReady();
    EXPECT_EQ(copied("com.example.a"), a);
    EXPECT_EQ(copied("com.example.b"), b);
    EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b", "com.example.idle"));
  }
  EXPECT_EQ(starts(), 3);
}

TEST_F(JobHostTest, AProcessTakenOverIsKeptAliveAndItsEndIsUnknown) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  restartHost();
  endLast(kSegmentationFault);
  EXPECT_EQ(copied("com.example.a"),
            Value(job("com.example.a", {{"PID", 102}, {"LastExitStatusUnknown", true}})));
}

TEST_F(JobHostTest, AProcessThatEndedWithoutAHostIsRestartedByTheRules) {
  ASSERT_TRUE(submit(job("com.example.kept")));
  ASSERT_TRUE(submit(job("com.example.once", {{"KeepAlive", false}, {"RunAtLoad", true}})));
  loop_.advanceBy(10s);
  killHost();
  processes_.end(101);
  processes_.end(102);
  startHost();
  EXPECT_EQ(pid("com.example.kept"), Value(103));
  EXPECT_EQ(host_->copy("com.example.kept")["LastExitStatusUnknown"], Value(true));
  EXPECT_TRUE(pid("com.example.once").isNil());
  EXPECT_EQ(host_->copy("com.example.once")["LastExitStatusUnknown"], Value(true));
  EXPECT_EQ(starts(), 3);
}

TEST_F(JobHostTest, TheThrottleHoldsFromOneHostToTheNext) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(4s);
  killHost();
  processes_.end(101);
  startHost();
  EXPECT_EQ(starts(), 1);
  loop_.advanceBy(6s - 1ns);
  EXPECT_EQ(starts(), 1);
  loop_.advanceBy(1ns);
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, AReusedProcessNumberIsNotTakenOver) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  killHost();
  processes_.reuse(101);
  startHost();
  EXPECT_EQ(pid("com.example.a"), Value(102));
  EXPECT_TRUE(processes_.isAlive(101));
}

TEST_F(JobHostTest, ARemovalIsFinishedByTheNextHost) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.lives")));
  ASSERT_TRUE(submit(job("com.example.gone")));
  const Answer lives = removeLater("com.example.lives");
  const Answer gone = removeLater("com.example.gone");
  killHost();
  processes_.end(102);
  loop_.runReady();
  processes_.signals.clear();
  startHost();
  loop_.runReady();
  EXPECT_FALSE(*lives || *gone);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.lives"));
  EXPECT_EQ(processes_.signals.size(), 1);
  processes_.end(101);
  loop_.runReady();
  EXPECT_TRUE(host_->labels().empty());
  restartHost();
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, RemainingProcessesOfAnEndWithoutAHostAreKilledFirst) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  killHost();
  processes_.addMember(101);
  processes_.end(101);
  processes_.signals.clear();
  startHost();
  ASSERT_EQ(processes_.signals.size(), 1);
  EXPECT_EQ(processes_.signals[0], (FakeProcesses::Signalled{101, SIGKILL, loop_.now()}));
  EXPECT_EQ(pid("com.example.a"), Value(102));
}

TEST_F(JobHostTest, TheNextHostDoesNotSignalAGroupThatHasEnded) {
  ASSERT_TRUE(submit(job("com.example.a")));
  killHost();
  processes_.end(101);
  startHost();
  EXPECT_TRUE(processes_.signals.empty());
}

TEST_F(JobHostTest, RemainingProcessesOfAProcessTakenOverAreKilled) {
  ASSERT_TRUE(submit(job("com.example.a")));
  restartHost();
  processes_.addMember(101);
  endLast();
  ASSERT_EQ(processes_.signals.size(), 1);
  EXPECT_EQ(processes_.signals[0], (FakeProcesses::Signalled{101, SIGKILL, loop_.now()}));
}

TEST_F(JobHostTest, ANewGroupWithTheNumberOfATakenOverOneIsNotSignalled) {
  ASSERT_TRUE(submit(job("com.example.kept", {{"ThrottleInterval", 3600}})));
  ASSERT_TRUE(submit(job("com.example.removed")));
  ASSERT_TRUE(submit(job("com.example.ends")));
  processes_.obeysTermination = false;
  restartHost();
  const Answer ends = removeLater("com.example.ends");
  processes_.signals.clear();
  // Their parent reaps them, and other processes get their numbers.
  for (const int process : {101, 102, 103}) {
    processes_.reuse(process);
    processes_.addMember(process);
  }
  processes_.endUnreported(102);
  const Answer removed = removeLater("com.example.removed");
  for (const int process : {101, 103}) processes_.end(process);
  loop_.advanceBy(1min);
  EXPECT_TRUE(*ends && *removed);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.kept"));
  EXPECT_THAT(processes_.signals, testing::IsEmpty());
}

TEST_F(JobHostTest, ANewGroupWithTheNumberOfARemovedOneIsNotKilled) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  ASSERT_TRUE(submit(job("com.example.late")));
  restartHost();
  ASSERT_TRUE(submit(job("com.example.child")));
  std::vector<Answer> removed;
  for (const int process : {101, 102, 103, 104}) processes_.addMember(process);
  for (const std::string& label : host_->labels()) removed.push_back(removeLater(label));
  for (const int process : {101, 102, 103, 104}) processes_.end(process);
  loop_.advanceBy(10s);
  for (const Answer& answer : removed) EXPECT_FALSE(*answer);
  processes_.signals.clear();
  // The last member ends, and another group has the number at the next poll.
  for (const int process : {101, 102, 104}) processes_.reuse(process);
  loop_.advanceBy(20ms);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.late"));
  // The same between the last poll and the kill.
  loop_.scheduleOutsideEvent(10s - 20ms, [this] { processes_.reuse(103); });
  loop_.advanceBy(1min);
  for (const Answer& answer : removed) EXPECT_TRUE(*answer);
  EXPECT_TRUE(processes_.signals.empty());
}

TEST_F(JobHostTest, ARemovalFinishedByTheNextHostRemovesTheSocketsName) {
  processes_.obeysTermination = false;
  const platform::Dictionary services{{"com.example.service", true}};
  ASSERT_TRUE(submit(job("com.example.a", {{"MachServices", services}})));
  removeLater("com.example.a");
  killHost();
  const std::string name = root_.path("run/vantor/mach/com.example.service");
  ASSERT_EQ(::access(name.c_str(), F_OK), 0);
  processes_.end(101);
  startHost();
  loop_.runReady();
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_NE(::access(name.c_str(), F_OK), 0);
}

TEST_F(JobHostTest, ACoreDumpIsReportedByEveryHost) {
  ASSERT_TRUE(submit(job("com.example.a")));
  endLast({kSegmentationFault, true});
  for (int i = 0; i < 3; ++i) {  // First as appended, then as compacted.
    EXPECT_EQ(host_->copy("com.example.a")["LastExitStatus"], Value(128 + SIGSEGV));
    restartHost();
  }
}

TEST_F(JobHostTest, ARemovalWaitsForTheGroupThatOutlivedLeaderAndHost) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.before", {{"ExitTimeOut", 3}})));
  ASSERT_TRUE(submit(job("com.example.after", {{"ExitTimeOut", 3}})));
  for (const int group : {101, 102}) processes_.addMember(group);
  removeLater("com.example.before");
  removeLater("com.example.after");
  processes_.end(101);
  loop_.runReady();  // The leader's end is on record, the member's is not.
  killHost();
  processes_.end(102);
  processes_.signals.clear();
  startHost();
  for (const auto& signalled : processes_.signals) EXPECT_EQ(signalled.signal, SIGTERM);
  EXPECT_EQ(processes_.signals.size(), 2);
  loop_.advanceBy(3s - 1ns);
  EXPECT_EQ(host_->labels().size(), 2);
  loop_.advanceBy(20ms + 1ns);
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_EQ(processes_.signals.back().signal, SIGKILL);
}

TEST_F(JobHostTest, JobsOfAnotherBootAreForgotten) {
  ASSERT_TRUE(submit(job("com.example.a")));
  killHost();
  processes_.hidesMarks = true;
  bootId_.front() = '2';
  startHost();
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_EQ(sink_.count("not from this boot"), 1);
}

TEST_F(JobHostTest, NothingOfAnotherPidNamespaceIsSignalledOrTakenOver) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  removeLater("com.example.b");
  killHost();
  processes_.addMember(101);
  processes_.signals.clear();
  processes_.hidesMarks = true;
  bootId_.back() = '8';
  startHost();
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_EQ(sink_.count("from another pid namespace"), 1);
  loop_.advanceBy(1min);
  EXPECT_THAT(processes_.signals, testing::IsEmpty());
}

TEST_F(JobHostTest, AJobThatNoLongerParsesIsKeptButNotStarted) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.idle")));
  endLast();
  loop_.advanceBy(1s);
  killHost();
  {  // As left by a host that honours more than this one.
    auto state = StateFile::open(root_.path("run/vantor"), bootId_, loop_);
    ASSERT_TRUE(state);
    for (StoredJob& stored : state->jobs) {
      stored.dictionary = job(stored.label, {{"Nice", "a lot"}});
    }
    ASSERT_TRUE(state->file->compact(state->jobs));
  }
  startHost();
  EXPECT_EQ(sink_.count("is kept, and started no more"), 2);
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_EQ(host_->copy("com.example.a")["Nice"], Value("a lot"));
  processes_.end(101);
  loop_.advanceBy(1min);
  EXPECT_TRUE(pid("com.example.a").isNil());
  EXPECT_EQ(host_->copy("com.example.a")["LastExitStatusUnknown"], Value(true));
  EXPECT_EQ(starts(), 2);
  // A valid definition makes it a job like any other.
  ASSERT_TRUE(submit(job("com.example.a")));
  EXPECT_EQ(starts(), 3);
  ASSERT_TRUE(**removeLater("com.example.idle"));
}

TEST_F(JobHostTest, AJobRestartedForeverDoesNotFillTheStateFile) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  std::size_t largest = 0;
  for (int i = 0; i < 2500; ++i) {
    endLast();
    loop_.advanceBy(1s);  // the longest pause
    struct stat status{};
    ASSERT_EQ(::stat(root_.path("run/vantor/launchd.state").c_str(), &status), 0);
    largest = std::max(largest, static_cast<std::size_t>(status.st_size));
  }
  EXPECT_LT(largest, 300 * 1024);
  restartHost();
  EXPECT_EQ(pid("com.example.a"), Value(2601));
}

TEST_F(JobHostTest, ABusWithAnOutdatedConfigurationIsRestarted) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job(kNotificationBusLabel)));
  loop_.advanceBy(20s);
  restartHost();
  EXPECT_TRUE(processes_.signals.empty());
  isBusOutdated_ = true;
  restartHost();
  ASSERT_EQ(processes_.signals.size(), 1u);
  EXPECT_EQ(processes_.signals.front().group, 102);
  EXPECT_EQ(processes_.signals.front().signal, SIGTERM);
  processes_.end(102);
  loop_.runReady();
  EXPECT_EQ(pid(kNotificationBusLabel), Value(103));
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_EQ(busRestarts_, 1);
}

TEST_F(JobHostTest, AnOutdatedBusThatDoesNotRunIsUpToDate) {
  isBusOutdated_ = true;
  restartHost();
  EXPECT_TRUE(processes_.signals.empty());
  EXPECT_EQ(busRestarts_, 1);
}

TEST_F(JobHostTest, AnOutdatedBusThatIsAdoptedLaterIsRestartedThen) {
  ASSERT_TRUE(submit(job(kNotificationBusLabel)));
  isBusOutdated_ = true;
  processes_.takeOverFailure =
      platform::Error{platform::ErrorCode::kExhausted, EMFILE, "descriptors"};
  restartHost();
  loop_.advanceBy(10s);
  EXPECT_TRUE(processes_.signals.empty());
  EXPECT_EQ(busRestarts_, 0);
  processes_.takeOverFailure.reset();
  loop_.advanceBy(1s);
  ASSERT_FALSE(processes_.signals.empty());
  EXPECT_EQ(processes_.signals.front().group, 101);
  EXPECT_EQ(processes_.signals.front().signal, SIGTERM);
  EXPECT_EQ(busRestarts_, 1);
}

}  // namespace
}  // namespace jobhost
