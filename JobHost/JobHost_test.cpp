// The job host's decisions, on virtual time and with processes that exist in the test only.

#include "JobHost/JobHost.h"

#include <csignal>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/FakeProcesses_contract.h"
#include "Platform/Testing/FakeLogSink.h"
#include "Platform/Testing/TemporaryFolder.h"
#include "Platform/Testing/VirtualRunLoop.h"

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

constexpr ExitStatus kSegmentationFault{ExitStatus::Kind::kSignalled, SIGSEGV};

class JobHostTest : public testing::Test {
 protected:
  JobHostTest() { startHost(); }

  void startHost(std::size_t maximumJobs = 4096) {
    JobHostOptions options;
    options.root = root_.path();
    options.bootId = bootId_;
    options.maximumJobs = maximumJobs;
    auto host = JobHost::create(loop_, processes_, log_, std::move(options));
    ASSERT_TRUE(host) << platform::describe(host.error());
    host_ = std::move(*host);
  }

  // Kills the host and starts the next one.
  void restartHost() {
    killHost();
    startHost();
  }
  void killHost() {
    host_.reset();
    processes_.dropWatches();
  }

  // Nothing until the outcome is known.
  using Answer = std::shared_ptr<std::optional<JobHost::Outcome>>;

  Answer submitLater(Dictionary job) {
    auto definition = parseJobDefinition(Value(std::move(job)));
    EXPECT_TRUE(definition) << platform::describe(definition.error());
    Answer answer = std::make_shared<std::optional<JobHost::Outcome>>();
    host_->submit(*std::move(definition), [answer](auto outcome) { *answer = outcome; });
    EXPECT_FALSE(*answer);
    loop_.runReady();
    return answer;
  }
  Answer removeLater(std::string_view label) {
    Answer answer = std::make_shared<std::optional<JobHost::Outcome>>();
    host_->remove(label, [answer](auto outcome) { *answer = outcome; });
    EXPECT_FALSE(*answer);
    loop_.runReady();
    return answer;
  }
  JobHost::Outcome submit(Dictionary job) { return submitLater(std::move(job))->value(); }

  static Dictionary job(const std::string& label, Dictionary more = {}) {
    Dictionary dictionary{{"Label", label}, {"Program", "/bin/true"}, {"KeepAlive", true}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    return dictionary;
  }

  Value pid(std::string_view label) { return host_->copy(label)["PID"]; }
  void endLast(ExitStatus status = {}) {
    processes_.end(processes_.started.back().process, status);
    loop_.runReady();
  }
  std::size_t starts() const { return processes_.started.size(); }

  platform::TemporaryFolder root_;
  std::string bootId_ = "11111111-2222-3333-4444-555555555555";
  platform::VirtualRunLoop loop_;
  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "jobhost"};
  FakeProcesses processes_{loop_};
  std::unique_ptr<JobHost> host_;
};

TEST_F(JobHostTest, ASubmittedJobHasAProcessWhenThatIsAnswered) {
  ASSERT_TRUE(submit(job("com.example.a", {{"Unknown", "kept"}})));
  EXPECT_EQ(host_->copy("com.example.a"),
            Value(job("com.example.a", {{"Unknown", "kept"}, {"PID", 101}})));
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a"));
}

TEST_F(JobHostTest, AJobThatNothingStartsIsKnownWithoutAProcess) {
  ASSERT_TRUE(submit(job("com.example.a", {{"KeepAlive", false}})));
  EXPECT_EQ(starts(), 0);
  EXPECT_EQ(host_->copy("com.example.a"), Value(job("com.example.a", {{"KeepAlive", false}})));
}

TEST_F(JobHostTest, AnUnknownLabelHasNoDictionaryAndCannotBeRemoved) {
  EXPECT_TRUE(host_->copy("com.example.a").isNil());
  const auto outcome = removeLater("com.example.a")->value();
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error().domain, platform::kCFErrorDomainLaunchd);
  EXPECT_EQ(outcome.error().code, static_cast<int>(LaunchdError::kNoSuchJob));
  EXPECT_THAT(outcome.error().localizedDescription, HasSubstr("com.example.a"));
}

TEST_F(JobHostTest, WhatASubmitterSaysOfProcessesIsNotBelieved) {
  ASSERT_TRUE(submit(job(
      "com.example.a",
      {{"KeepAlive", false}, {"PID", 1}, {"LastExitStatus", 3}, {"LastExitStatusUnknown", true}})));
  EXPECT_EQ(host_->copy("com.example.a"), Value(job("com.example.a", {{"KeepAlive", false}})));
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

TEST_F(JobHostTest, ALaterStartThatFailsIsTriedAgainAtTheThrottle) {
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

TEST_F(JobHostTest, WithoutAThrottleAFailingStartIsTriedOnceASecond) {
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
  EXPECT_EQ(host_->copy("com.example.a"),
            Value(job("com.example.a", {{"PID", 102}, {"LastExitStatus", SIGSEGV}})));
}

TEST_F(JobHostTest, AYoungerOneIsStartedAgainWhenItsThrottleLetsIt) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s - 1ns);
  endLast({ExitStatus::Kind::kExited, 7});
  EXPECT_EQ(starts(), 1);
  EXPECT_EQ(host_->copy("com.example.a"),
            Value(job("com.example.a", {{"LastExitStatus", 7 << 8}})));
  loop_.advanceBy(1ns);
  EXPECT_EQ(starts(), 2);
}

TEST_F(JobHostTest, AThrottleOfZeroIsNone) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  for (int i = 0; i < 5; ++i) endLast();
  EXPECT_EQ(starts(), 6);
}

TEST_F(JobHostTest, AJobThatIsNotKeptAliveStaysKnownAfterItsEnd) {
  ASSERT_TRUE(submit(job("com.example.a", {{"KeepAlive", false}, {"RunAtLoad", true}})));
  endLast();
  loop_.advanceBy(1h);
  EXPECT_EQ(starts(), 1);
  EXPECT_EQ(host_->copy("com.example.a")["LastExitStatus"], Value(0));
  EXPECT_TRUE(pid("com.example.a").isNil());
}

TEST_F(JobHostTest, SubmittingAKnownLabelLeavesItsProcessAloneAndCountsForTheNext) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  ASSERT_TRUE(submit(job("com.example.a", {{"Program", "/bin/false"}})));
  EXPECT_EQ(pid("com.example.a"), Value(101));
  EXPECT_EQ(host_->copy("com.example.a")["Program"], Value("/bin/false"));
  endLast();
  EXPECT_EQ(processes_.started.back().program, "/bin/false");
}

TEST_F(JobHostTest, SubmittingACrashingJobAgainDoesNotGetPastItsThrottle) {
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
    // As when somebody who was woken by the exit asks at once.
    processes_.end(101, kSegmentationFault);
    seen = host_->copy("com.example.a");
  });
  loop_.runReady();
  EXPECT_TRUE(seen["PID"].isNil());
  EXPECT_EQ(seen["LastExitStatus"], Value(SIGSEGV));
}

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

TEST_F(JobHostTest, AProcessThatStaysIsKilledAfterTheExitTimeOut) {
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

TEST_F(JobHostTest, AnExitTimeOutOfZeroNeverKills) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a", {{"ExitTimeOut", 0}})));
  const Answer answer = removeLater("com.example.a");
  loop_.advanceBy(24h);
  EXPECT_FALSE(*answer);
  endLast();
  EXPECT_TRUE(*answer);
}

TEST_F(JobHostTest, RemovingWaitsForMembersWhoseLeaderHasGone) {
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

TEST_F(JobHostTest, MembersWhoseLeaderHasGoneAreKilledToo) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.addMember(101);
  const Answer answer = removeLater("com.example.a");
  endLast();
  loop_.advanceBy(20s + 20ms);
  EXPECT_TRUE(*answer);
  EXPECT_EQ(processes_.signals.back().signal, SIGKILL);
}

TEST_F(JobHostTest, WhatAProcessLeavesOfItsGroupDoesNotOutliveIt) {
  ASSERT_TRUE(submit(job("com.example.a")));
  processes_.addMember(101);
  endLast();
  EXPECT_TRUE(processes_.isGroupEmpty(101));
}

TEST_F(JobHostTest, EverybodyWhoRemovesAJobIsAnswered) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer first = removeLater("com.example.a");
  const Answer second = removeLater("com.example.a");
  EXPECT_FALSE(*first || *second);
  endLast();
  EXPECT_TRUE(*first && *second);
}

TEST_F(JobHostTest, WhatComesDuringARemovalConcernsTheNextJob) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer removed = removeLater("com.example.a");
  const Answer submitted = submitLater(job("com.example.a", {{"Program", "/bin/false"}}));
  EXPECT_FALSE(*removed || *submitted);
  EXPECT_EQ(host_->copy("com.example.a")["Program"], Value("/bin/true"));
  endLast();
  EXPECT_TRUE(*removed && *submitted);
  EXPECT_EQ(processes_.started.back().program, "/bin/false");
  EXPECT_EQ(pid("com.example.a"), Value(102));
}

TEST_F(JobHostTest, ARemovalBehindASubmissionRemovesWhatThatOneStarts) {
  processes_.obeysTermination = false;
  ASSERT_TRUE(submit(job("com.example.a")));
  const Answer removed = removeLater("com.example.a");
  const Answer submitted = submitLater(job("com.example.a"));
  const Answer removedAgain = removeLater("com.example.a");
  endLast();
  EXPECT_TRUE(*removed && *submitted);
  EXPECT_FALSE(*removedAgain);
  endLast();
  EXPECT_TRUE(*removedAgain);
  EXPECT_TRUE(host_->labels().empty());
}

TEST_F(JobHostTest, AsManyJobsAsAllowedAndNoMore) {
  killHost();
  startHost(3);
  for (const char* label : {"a", "b", "c"}) ASSERT_TRUE(submit(job(label)));
  const auto outcome = submit(job("d"));
  ASSERT_FALSE(outcome);
  EXPECT_THAT(outcome.error().localizedDescription, HasSubstr("at most 3 jobs"));
  EXPECT_TRUE(submit(job("c")));
  EXPECT_TRUE(removeLater("a")->value());
  EXPECT_TRUE(submit(job("d")));
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

TEST_F(JobHostTest, WhileShuttingDownNothingIsSubmitted) {
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

// Taking over.

TEST_F(JobHostTest, TheNextHostKnowsEveryJobAndItsProcess) {
  ASSERT_TRUE(submit(job("com.example.a", {{"Unknown", platform::Array{1, 2.5, "x"}}})));
  ASSERT_TRUE(submit(job("com.example.b")));
  loop_.advanceBy(20s);
  endLast(kSegmentationFault);
  ASSERT_TRUE(submit(job("com.example.idle", {{"KeepAlive", false}})));
  const Value a = host_->copy("com.example.a");
  const Value b = host_->copy("com.example.b");
  for (int i = 0; i < 3; ++i) {
    restartHost();
    loop_.runReady();
    EXPECT_EQ(host_->copy("com.example.a"), a);
    EXPECT_EQ(host_->copy("com.example.b"), b);
    EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.b", "com.example.idle"));
  }
  EXPECT_EQ(starts(), 3);
}

TEST_F(JobHostTest, AProcessTakenOverIsKeptAliveAndItsEndUnknown) {
  ASSERT_TRUE(submit(job("com.example.a")));
  loop_.advanceBy(10s);
  restartHost();
  endLast(kSegmentationFault);
  EXPECT_EQ(host_->copy("com.example.a"),
            Value(job("com.example.a", {{"PID", 102}, {"LastExitStatusUnknown", true}})));
}

TEST_F(JobHostTest, AProcessThatEndedWithoutAHostIsStartedAgainByTheRules) {
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

TEST_F(JobHostTest, ANumberThatAnotherProcessHasNowIsNotTakenOver) {
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

TEST_F(JobHostTest, JobsOfAnotherBootAreForgotten) {
  ASSERT_TRUE(submit(job("com.example.a")));
  killHost();
  bootId_.front() = '2';
  startHost();
  EXPECT_TRUE(host_->labels().empty());
  EXPECT_EQ(sink_.count("not from this boot"), 1);
}

TEST_F(JobHostTest, AJobRestartedForeverDoesNotFillTheStateFile) {
  ASSERT_TRUE(submit(job("com.example.a", {{"ThrottleInterval", 0}})));
  std::size_t largest = 0;
  for (int i = 0; i < 5000; ++i) {
    endLast();
    struct stat status{};
    ASSERT_EQ(::stat(root_.path("run/vantor/launchd.state").c_str(), &status), 0);
    largest = std::max(largest, static_cast<std::size_t>(status.st_size));
  }
  EXPECT_LT(largest, 300 * 1024);
  restartHost();
  EXPECT_EQ(pid("com.example.a"), Value(5101));
}

// Daemons from files.

TEST_F(JobHostTest, FilesOfTheDaemonFolderAreLoadedAndTheOthersLogged) {
  killHost();
  const auto plist = [](const std::string& label) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Label</key><string>" + label +
           "</string><key>Program</key><string>/bin/true</string><key>RunAtLoad</key><true/></dict>"
           "</plist>";
  };
  const std::string folder = "Library/LaunchDaemons/";
  root_.write(folder + "a.plist", plist("com.example.a"));
  root_.write(folder + "b.plist", plist("com.example.a"));
  root_.write(folder + "c.plist", "no property list");
  root_.write(folder + "d.plist", "<plist version=\"1.0\"><dict/></plist>");
  root_.write(folder + "e.text", plist("com.example.e"));
  ASSERT_EQ(::chmod(root_.write(folder + "f.plist", plist("com.example.f")).c_str(), 0666), 0);
  ASSERT_EQ(::symlink("a.plist", root_.path(folder + "g.plist").c_str()), 0);
  root_.write(folder + "h.plist", plist("com.example.h"));
  startHost();
  EXPECT_THAT(host_->labels(), ElementsAre("com.example.a", "com.example.h"));
  EXPECT_EQ(starts(), 2);
  for (const char* file : {"b.plist", "c.plist", "d.plist", "f.plist", "g.plist"}) {
    EXPECT_EQ(sink_.count(file), 1) << file;
  }
}

}  // namespace
}  // namespace jobhost
