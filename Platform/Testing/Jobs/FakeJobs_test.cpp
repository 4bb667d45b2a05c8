#include "Platform/Testing/Jobs/FakeJobs.h"

#include <chrono>
#include <csignal>
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Jobs/Jobs_contract.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr ExitStatus kKilled{ExitStatus::Kind::kSignalled, SIGKILL};

class FakeJobsMachine final : public JobsMachine {
 public:
  FakeJobsMachine() {
    jobs_.setUnstartable(unstartableProgram(), "Permission denied");
    jobs_.setFile(program(), {});
  }

  Jobs& jobs() override { return jobs_; }
  std::string program() override { return "/opt/agent"; }
  std::string stubbornProgram() override { return "/opt/stubborn"; }
  std::string outputPath() override { return "/var/log/agent"; }
  void awaitOutput(const std::string& label) override { jobs_.ignoreTermination(label); }
  std::string unstartableProgram() override { return "/etc/hosts"; }
  void kill(const std::string& label, ProcessId) override { jobs_.endProcess(label, kKilled); }
  bool isRunning(ProcessId process) override { return exitWatcher_.isKnown(process); }
  void awaitProcessAfter(const std::string& label, ProcessId process) override {
    loop_.advanceBy(1min);
    EXPECT_NE(jobs_.process(label).value_or(process), process);
  }
  void runBriefly() override { loop_.advanceBy(100ms); }
  void runUntil(const std::function<bool()>& done) override {
    for (int i = 0; i < 1200 && !done(); ++i) loop_.advanceBy(50ms);
    EXPECT_TRUE(done());
  }
  void stopHost() override { jobs_.setReachable(false); }
  void startHost() override { jobs_.setReachable(true); }
  void startHostSoon() override {
    loop_.scheduleOutsideEvent(1s, [this] { jobs_.setReachable(true); });
  }

 private:
  VirtualRunLoop loop_;
  FakeExitWatcher exitWatcher_{loop_};
  FakeJobs jobs_{loop_, exitWatcher_};
};

std::unique_ptr<JobsMachine> makeJobsMachine() { return std::make_unique<FakeJobsMachine>(); }

INSTANTIATE_TEST_SUITE_P(Fake, JobsContract, testing::Values(&makeJobsMachine));

class FakeJobsTest : public testing::Test {
 protected:
  static constexpr char kLabel[] = "com.example.agent";

  void submit(Dictionary more = {}) {
    Dictionary dictionary{{"Label", kLabel}, {"Program", "/opt/agent"}, {"KeepAlive", true}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    const auto submitted = jobs_.SMJobSubmit(kSMDomainSystemLaunchd, dictionary, nullptr);
    EXPECT_TRUE(submitted) << submitted.error().localizedDescription;
  }
  auto remove(bool wait) {
    return jobs_.SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, wait);
  }
  Value copy() { return jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, kLabel); }

  VirtualRunLoop loop_;
  FakeExitWatcher exitWatcher_{loop_};
  FakeJobs jobs_{loop_, exitWatcher_};
};

TEST_F(FakeJobsTest, AnEndedJobIsStartedAgainWhenItsThrottleAllowsIt) {
  submit();
  loop_.advanceBy(4s);
  jobs_.endProcess(kLabel, {ExitStatus::Kind::kExited, 3});
  EXPECT_EQ(copy()["LastExitStatus"].integer(), 3 << 8);
  loop_.advanceBy(6s - 1ns);
  EXPECT_FALSE(jobs_.process(kLabel));
  loop_.advanceBy(1ns);
  EXPECT_TRUE(jobs_.process(kLabel));
  EXPECT_EQ(jobs_.starts(kLabel), 2u);
}

TEST_F(FakeJobsTest, AJobOlderThanItsThrottleIsStartedAgainAtOnce) {
  submit();
  loop_.advanceBy(10s);
  const auto first = jobs_.process(kLabel);
  jobs_.endProcess(kLabel);
  ASSERT_TRUE(jobs_.process(kLabel));
  EXPECT_NE(jobs_.process(kLabel), first);
}

TEST_F(FakeJobsTest, APlannedStartDoesNotBreakTheThrottle) {
  submit();
  jobs_.endProcess(kLabel);
  submit({{"ThrottleInterval", 0}});  // Starts it now; the other start is still planned at 10 s.
  ASSERT_EQ(jobs_.starts(kLabel), 2u);
  submit();
  loop_.advanceBy(9s);
  jobs_.endProcess(kLabel);
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(jobs_.starts(kLabel), 2u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(jobs_.starts(kLabel), 3u);
}

TEST_F(FakeJobsTest, TheHostStartsProcessesAlsoWhileTheProgramWaits) {
  submit();
  jobs_.endProcess(kLabel);
  loop_.sleepFor(10s);
  EXPECT_TRUE(jobs_.process(kLabel));
}

TEST_F(FakeJobsTest, TheExitWatcherReportsTheEndOfAJob) {
  submit();
  int ends = 0;
  const auto watch = exitWatcher_.watchExit(*jobs_.process(kLabel), [&](auto) { ++ends; });
  jobs_.endProcess(kLabel);
  EXPECT_EQ(ends, 0);
  loop_.runReady();
  EXPECT_EQ(ends, 1);
}

TEST_F(FakeJobsTest, AJobThatIsNotKeptAliveStaysDown) {
  submit({{"KeepAlive", false}, {"RunAtLoad", true}, {"ThrottleInterval", 0}});
  jobs_.endProcess(kLabel);
  loop_.advanceBy(1h);
  EXPECT_EQ(jobs_.starts(kLabel), 1u);
  EXPECT_THAT(jobs_.labels(), ElementsAre(kLabel));
}

TEST_F(FakeJobsTest, AFailedLaterStartIsRetried) {
  submit({{"ThrottleInterval", 0}});
  jobs_.setUnstartable("/opt/agent", "No such file or directory");
  jobs_.endProcess(kLabel);
  loop_.advanceBy(1min);
  EXPECT_FALSE(jobs_.process(kLabel));
  jobs_.setUnstartable("/opt/agent", std::nullopt);
  loop_.advanceBy(1min);
  EXPECT_TRUE(jobs_.process(kLabel));
}

TEST_F(FakeJobsTest, ARemovalWaitsForTheExitTimeOut) {
  submit({{"ExitTimeOut", 7}});
  jobs_.ignoreTermination(kLabel);
  const Instant before = loop_.now();
  EXPECT_TRUE(remove(true));
  EXPECT_EQ(loop_.now() - before, 7s);
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(FakeJobsTest, ARemovalWithoutWaitingContinuesByItself) {
  submit({{"ExitTimeOut", 7}});
  jobs_.ignoreTermination(kLabel);
  EXPECT_TRUE(remove(false));
  EXPECT_TRUE(jobs_.process(kLabel));
  loop_.advanceBy(7s);
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(FakeJobsTest, ARemovalIsOverWhenTheProcessEndsByItself) {
  submit({{"ExitTimeOut", 7}, {"ThrottleInterval", 0}});
  jobs_.ignoreTermination(kLabel);
  loop_.scheduleOutsideEvent(2s, [this] { jobs_.endProcess(kLabel); });
  const Instant before = loop_.now();
  EXPECT_TRUE(remove(true));
  EXPECT_EQ(loop_.now() - before, 2s);
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  submit();
  loop_.advanceBy(7s);
  EXPECT_TRUE(jobs_.process(kLabel));
}

TEST_F(FakeJobsTest, AJobUnderRemovalIsSubmittedAfterItsEnd) {
  submit({{"ExitTimeOut", 7}, {"ThrottleInterval", 0}});
  const auto first = jobs_.process(kLabel);
  jobs_.ignoreTermination(kLabel);
  EXPECT_TRUE(remove(false));
  const Instant before = loop_.now();
  submit();
  EXPECT_EQ(loop_.now() - before, 7s);
  EXPECT_NE(jobs_.process(kLabel), first);
  EXPECT_EQ(jobs_.starts(kLabel), 1u);
}

TEST_F(FakeJobsTest, AnUnreachableHostCostsFiveSecondsOnce) {
  for (int i = 0; i < 2; ++i) {
    jobs_.setReachable(false);
    const Instant before = loop_.now();
    for (int call = 0; call < 3; ++call) {
      EXPECT_TRUE(isJobUnknown(copy()));
      EXPECT_EQ(loop_.now() - before, 5s);
    }
    jobs_.setReachable(true);
    EXPECT_FALSE(isJobUnknown(copy()));
  }
}

TEST_F(FakeJobsTest, AReturningHostStartsEndedJobs) {
  submit();
  jobs_.setReachable(false);
  jobs_.endProcess(kLabel);
  loop_.advanceBy(1h);
  EXPECT_FALSE(jobs_.process(kLabel));
  jobs_.setReachable(true);
  EXPECT_TRUE(jobs_.process(kLabel));
}

TEST_F(FakeJobsTest, ARefusedCallerCannotChangeOrReadJobs) {
  submit();
  jobs_.setCallerAllowed(false);
  const auto removed = remove(true);
  ASSERT_FALSE(removed);
  EXPECT_EQ(removed.error().code, static_cast<int>(LaunchdError::kNotAuthorized));
  EXPECT_TRUE(isJobUnknown(copy()));
  EXPECT_TRUE(jobs_.process(kLabel));
}

TEST_F(FakeJobsTest, WithoutAThrottleShortRunsAreFollowedByGrowingPauses) {
  submit({{"ThrottleInterval", 0}});
  for (const Duration pause : {0ms, 10ms, 20ms, 40ms, 80ms, 160ms, 320ms, 640ms, 1000ms, 1000ms}) {
    loop_.advanceBy(1s - 1ns);
    jobs_.endProcess(kLabel, kKilled);
    if (pause > 0s) {
      loop_.advanceBy(pause - 1ns);
      EXPECT_FALSE(jobs_.process(kLabel)) << pause.count();
      loop_.advanceBy(1ns);
    }
    EXPECT_TRUE(jobs_.process(kLabel)) << pause.count();
  }
  loop_.advanceBy(1s);
  jobs_.endProcess(kLabel, kKilled);
  EXPECT_TRUE(jobs_.process(kLabel));
}

}  // namespace
}  // namespace platform
