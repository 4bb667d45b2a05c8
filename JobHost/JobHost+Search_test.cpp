// Processes that a host finds by their marks.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/JobHostFixture_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Value;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr platform::UserId kAnotherUser = 65533;

class JobHostSearch : public JobHostTest {
 protected:
  const std::string state_ = root_.path("run/vantor/launchd.state");

  void restartWithoutState() {
    killHost();
    ASSERT_EQ(::unlink(state_.c_str()), 0);
    startHost();
    loop_.runReady();
  }
  void writeDaemon(const std::string& label) {
    root_.write("Library/LaunchDaemons/" + label + ".plist", daemonFile(label, kKeepAlive));
  }
};

TEST_F(JobHostSearch, ProcessesWithoutAStateFileAreKeptAndNotStartedTwice) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  for (int i = 0; i < 2; ++i) {
    restartWithoutState();
    EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b"));
    EXPECT_EQ(pid("com.example.a"), Value(101));
    EXPECT_EQ(pid("com.example.b"), Value(102));
    restartHost();  // With what that host has written.
    EXPECT_EQ(pid("com.example.a"), Value(101));
  }
  EXPECT_EQ(sink_.count("its definition is lost"), 4);
  EXPECT_EQ(starts(), 2);
  EXPECT_TRUE(removeLater("com.example.a")->value());
  EXPECT_FALSE(processes_.isAlive(101));
}

TEST_F(JobHostSearch, ADaemonGetsItsLostDefinitionFromItsFile) {
  killHost();
  writeDaemon("com.example.daemon");
  startHost();
  loop_.runReady();
  loop_.advanceBy(20s);
  restartWithoutState();
  EXPECT_EQ(pid("com.example.daemon"), Value(101));
  EXPECT_EQ(host_->copy("com.example.daemon")["Program"], Value("/bin/true"));
  endLast();
  EXPECT_EQ(pid("com.example.daemon"), Value(102));
}

TEST_F(JobHostSearch, AJobWithoutADefinitionIsForgottenWhenItsProcessEnds) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  restartWithoutState();
  endLast();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a"));
  killHost();
  processes_.end(101);
  startHost();
  loop_.runReady();
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostSearch, ASubmissionGivesAJobItsDefinitionAgain) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(20s);
  restartWithoutState();
  ASSERT_TRUE(submit(job("com.example.a", {{"Program", "/bin/false"}})));
  EXPECT_EQ(pid("com.example.a"), Value(101));
  endLast();
  EXPECT_EQ(pid("com.example.a"), Value(102));
  EXPECT_EQ(processes_.started.back().program, "/bin/false");
}

TEST_F(JobHostSearch, AProcessThatTheStateFileDoesNotKnowIsItsJobs) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(20s);
  killHost();
  const std::string before = platform::contentOfFile(state_);
  startHost();
  endLast();
  ASSERT_EQ(pid("com.example.a"), Value(102));
  killHost();
  root_.write("run/vantor/launchd.state", before);  // It says that process 101 runs.
  ASSERT_EQ(::chmod(state_.c_str(), 0600), 0);
  startHost();
  EXPECT_EQ(pid("com.example.a"), Value(102));
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostSearch, AProcessThatBelongsToNoJobIsKilled) {
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  killHost();
  processes_.end(101);
  ASSERT_EQ(::unlink(state_.c_str()), 0);
  startHost();
  EXPECT_FALSE(processes_.isAlive(descendant));
  EXPECT_EQ(sink_.count("belongs to no job any more, and is killed"), 1);
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostSearch, AnotherUsersMarkTakesNoJobsPlace) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(20s);
  killHost();
  processes_.end(101);
  const auto ofJob = processes_.forge("com.example.a", kAnotherUser);
  const auto ofNoJob = processes_.forge("com.example.none", kAnotherUser);
  startHost();
  loop_.runReady();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a"));
  EXPECT_EQ(pid("com.example.a"), Value(std::int64_t{processes_.started.back().process}));
  EXPECT_EQ(starts(), 2);
  EXPECT_TRUE(processes_.isAlive(ofJob));
  EXPECT_TRUE(processes_.isAlive(ofNoJob));
}

TEST_F(JobHostSearch, AMarkOfTheJobsUserCounts) {
  const passwd* const nobody = ::getpwnam("nobody");
  if (!nobody) GTEST_SKIP() << "there is no user nobody";
  ASSERT_TRUE(submit(job("com.example.a", {{"UserName", "nobody"}})));
  killHost();
  processes_.end(101);
  const auto leader = processes_.forge("com.example.a", nobody->pw_uid);
  startHost();
  EXPECT_EQ(pid("com.example.a"), Value(std::int64_t{leader}));
}

TEST_F(JobHostSearch, ARemovalWaitsForNoNewMarkOfAnotherUser) {
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto before = processes_.forge("com.example.a", kAnotherUser, 101);
  processes_.obeysTermination = false;
  const Answer answer = removeLater("com.example.a");
  const auto later = processes_.forge("com.example.a", kAnotherUser, 101);
  loop_.advanceBy(21s);
  EXPECT_TRUE(answer->value());
  EXPECT_FALSE(processes_.isAlive(before));
  EXPECT_TRUE(processes_.isAlive(later));
}

TEST_F(JobHostSearch, ARemovalEndsWhatHasLeftTheGroup) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b")));
  const auto descendant = processes_.addDescendant(101);
  const auto other = processes_.addDescendant(102);
  ASSERT_TRUE(removeLater("com.example.a"));
  EXPECT_FALSE(processes_.isAlive(descendant));
  EXPECT_TRUE(processes_.isAlive(other));
  loop_.advanceBy(20ms);
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.b"));
}

TEST_F(JobHostSearch, AProcessThatLeftTheGroupIsKilledAfterTheExitTimeOut) {
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  processes_.obeysTermination = false;
  const Answer answer = removeLater("com.example.a");
  endLast();
  loop_.advanceBy(20s - 1ns);
  EXPECT_TRUE(processes_.isAlive(descendant));
  EXPECT_FALSE(*answer);
  loop_.advanceBy(20ms);
  EXPECT_FALSE(processes_.isAlive(descendant));
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostSearch, AProcessThatIsFoundAfterTheExitTimeOutIsKilledAtOnce) {
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto descendant = processes_.addDescendant(101);
  processes_.obeysTermination = processes_.obeysKill = false;
  const Answer answer = removeLater("com.example.a");
  endLast();
  loop_.advanceBy(20s);
  const auto later = processes_.addDescendant(101);
  processes_.obeysKill = true;
  loop_.advanceBy(2s);
  EXPECT_FALSE(processes_.isAlive(later));
  processes_.end(descendant);
  loop_.advanceBy(2s);
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostSearch, ProcessesOfAForgottenJobAreKilledAtOnce) {
  ASSERT_TRUE(submit(job("com.example.a")));
  restartWithoutState();
  const auto descendant = processes_.addDescendant(101);
  processes_.obeysTermination = false;
  endLast();
  EXPECT_FALSE(processes_.isAlive(descendant));
  loop_.advanceBy(1s);
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostSearch, AProcessThatBeginsInTheGroupAfterSigtermGetsItToo) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", 0}})));
  const auto earlier = processes_.addDescendant(101, 101);
  processes_.addMember(101);  // so that the removal waits
  processes_.obeysTermination = false;
  const Answer answer = removeLater("com.example.a");
  const auto later = processes_.addDescendant(101, 101);  // from a handler of SIGTERM
  endLast();
  loop_.advanceBy(1min);
  const auto asked = [&](platform::ProcessId process) {
    return std::ranges::count(processes_.signals, process, &FakeProcesses::Signalled::group);
  };
  EXPECT_EQ(asked(101), 1);
  EXPECT_EQ(asked(earlier), 0);  // It was asked with its group.
  EXPECT_EQ(asked(later), 1);
  EXPECT_FALSE(*answer);
  processes_.end(later);
  processes_.endMembers(101);
  loop_.advanceBy(2s);
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostSearch, ASearchThatFailsIsRepeated) {
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.searchFailure = platform::Error{platform::ErrorCode::kExhausted, EMFILE, "searching"};
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(1s);
  EXPECT_FALSE(*answer);
  processes_.searchFailure.reset();
  loop_.advanceBy(20ms);
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostSearch, RemovalsThatWaitTogetherShareOneSearch) {
  constexpr int kMany = 50;
  for (int i = 0; i < kMany; ++i) ASSERT_TRUE(submit(job("com.example." + std::to_string(i))));
  const int before = processes_.searches;
  bool isStopped = false;
  host_->shutDown([&] { isStopped = true; });
  loop_.runReady();
  EXPECT_TRUE(isStopped);
  EXPECT_LT(processes_.searches - before, 3);
}

class JobHostAdoption : public JobHostSearch {
 protected:
  const platform::Error shortage_{platform::ErrorCode::kExhausted, EMFILE, "pidfd_open"};

  JobHostAdoption() { processes_.hasControlGroups = true; }

  // The next host has no descriptors for the processes that run.
  void restartWithoutDescriptors() {
    killHost();
    processes_.takeOverFailure = shortage_;
    startHost();
    loop_.runReady();
  }
};

TEST_F(JobHostAdoption, AProcessWithoutADescriptorIsTakenOverLater) {
  ASSERT_TRUE(submit(job("com.example.a")));
  for (const bool hasState : {true, false}) {
    processes_.takeOverFailure = shortage_;
    if (hasState) {
      restartHost();
    } else {
      restartWithoutState();
    }
    loop_.advanceBy(1min);
    EXPECT_TRUE(processes_.isAlive(101));
    EXPECT_EQ(pid("com.example.a"), Value(101));
    restartHost();  // The state file still says that it runs.
    EXPECT_EQ(pid("com.example.a"), Value(101));
    sink_.clear();
    processes_.takeOverFailure.reset();
    loop_.advanceBy(1s);
    EXPECT_EQ(sink_.count("process 101 of an earlier host taken over"), 1);
  }
  EXPECT_EQ(starts(), 1);
  endLast();
  EXPECT_FALSE(processes_.isAlive(101));
  EXPECT_THAT(host_->labels(), IsEmpty());  // Its definition is lost.
}

TEST_F(JobHostAdoption, AProcessThatEndsBeforeThatIsReplaced) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(20s);
  restartWithoutDescriptors();
  processes_.end(101);
  processes_.takeOverFailure.reset();
  loop_.advanceBy(1s);
  EXPECT_EQ(pid("com.example.a"), Value(102));
}

TEST_F(JobHostAdoption, AProcessIsRemovedBeforeThat) {
  ASSERT_TRUE(submit(job("com.example.a")));
  restartWithoutDescriptors();
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(20ms);
  EXPECT_TRUE(*answer);
  EXPECT_FALSE(processes_.isAlive(101));
  EXPECT_THAT(host_->labels(), IsEmpty());
}

TEST_F(JobHostAdoption, AProcessThatAbandonsItsGroupIsRemovedBeforeThat) {
  ASSERT_TRUE(submit(job("com.example.a", {{"AbandonProcessGroup", true}})));
  const auto abandoned = processes_.addDescendant(101);
  restartWithoutDescriptors();
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(20ms);
  EXPECT_TRUE(*answer);
  EXPECT_FALSE(processes_.isAlive(101));
  EXPECT_TRUE(processes_.isAlive(abandoned));
  EXPECT_THAT(processes_.abandoned, ElementsAre("com.example.a"));
}

TEST_F(JobHostAdoption, ARemovalWaitsForALeaderThatNoSearchFinds) {
  for (const bool abandons : {false, true}) {
    const std::string label = abandons ? "com.example.b" : "com.example.a";
    ASSERT_TRUE(submit(job(label, {{"AbandonProcessGroup", abandons}})));
    const auto leader = processes_.started.back().process;
    restartWithoutDescriptors();
    processes_.hidesMarks = true;
    const Answer answer = removeLater(label);
    loop_.advanceBy(5s);
    EXPECT_FALSE(*answer);
    EXPECT_TRUE(processes_.isAlive(leader));
    processes_.takeOverFailure.reset();
    loop_.advanceBy(2s);
    EXPECT_TRUE(*answer);
    EXPECT_FALSE(processes_.isAlive(leader));
    processes_.hidesMarks = false;
  }
}

TEST_F(JobHostAdoption, TheTreeOfAProcessThatEndsBeforeThatIsNobodys) {
  ASSERT_TRUE(submit(job("com.example.a")));
  ASSERT_TRUE(submit(job("com.example.b", {{"AbandonProcessGroup", true}})));
  loop_.advanceBy(20s);
  restartWithoutDescriptors();
  for (const int process : {101, 102}) processes_.end(process);
  processes_.discarded.clear();
  processes_.takeOverFailure.reset();
  loop_.advanceBy(1s);
  EXPECT_THAT(processes_.discarded, ElementsAre("com.example.a"));
  EXPECT_THAT(processes_.abandoned, ElementsAre("com.example.b"));
  EXPECT_EQ(starts(), 4);
}

TEST_F(JobHostAdoption, AHostThatCannotSearchDoesNotStart) {
  ASSERT_TRUE(submit(job("com.example.a")));
  killHost();
  processes_.searchFailure = shortage_;
  JobHostOptions options;
  options.root = root_.path();
  options.bootId = bootId_;
  EXPECT_FALSE(JobHost::create(loop_, processes_, log_, options));
  EXPECT_TRUE(processes_.isAlive(101));
  processes_.searchFailure.reset();
  startHost();
  EXPECT_EQ(pid("com.example.a"), Value(101));
}

}  // namespace
}  // namespace jobhost
