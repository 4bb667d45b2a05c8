// Real jobs whose processes can't leave their control group.

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/JobHostBed_contract.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::UniqueFd;

constexpr char kTreeLabel[] = "com.example.job";

class JobHostTrees : public RealJobHostTest {
 protected:
  void SetUp() override {
    const auto groups = JobGroups::create(hostMark(root_.path(), *readBootId()));
    if (!groups) GTEST_SKIP() << platform::describe(groups.error());
  }

  // The process whose number comes next. Empty if it has already been reaped.
  UniqueFd nextProcess() {
    const long process = std::stol(lines_.nextLine());
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
  }
  static bool hasEnded(const UniqueFd& process) {
    pollfd entry{process.get(), POLLIN, 0};
    return !process || ::poll(&entry, 1, 0) > 0;
  }
  // Runs the host until the process has ended.
  bool ends(const UniqueFd& process) {
    const auto poll = loop().startTimer(1ms, platform::RunLoop::Repeat::kEvery, [&] {
      if (hasEnded(process)) loop().stop();
    });
    const auto deadline =
        loop().startTimer(kTestDeadline, platform::RunLoop::Repeat::kOnce, [&] { loop().stop(); });
    loop().run();
    return hasEnded(process);
  }

  platform::JobHistory history(std::string_view label) {
    return jobHistoryIn(host_->copy(label)).value();
  }

  std::string groupOf(std::string_view label, bool abandonsGroup = false) const {
    const auto groups = JobGroups::create(hostMark(root_.path(), *readBootId()));
    return groups->of(label, abandonsGroup).folder();
  }

  // A job that starts a process with a session of its own, twice forked, deaf to SIGTERM and
  // without the mark, and then goes on with `then`.
  Dictionary jobWithRunaway(const std::string& then) const {
    const std::string runaway = "trap '' TERM HUP INT PIPE; echo $$ >" + lines_.path() +
                                "; echo >" + ready_ + "; exec /bin/sleep 1000";
    Dictionary job =
        scriptJob(kTreeLabel, "[ -p " + ready_ + " ] || mkfifo " + ready_ +
                                  "; (setsid /usr/bin/env -i /bin/sh -c \"" +
                                  "$RUNAWAY\" &) & read line <" + ready_ + "; " + then);
    job.set("EnvironmentVariables", Dictionary{{"RUNAWAY", runaway}});
    job.set("ExitTimeOut", 1);
    return job;
  }

  LineChannel lines_{loop(), root_.path("lines")};
  const std::string ready_ = root_.path("ready");
};

TEST_F(JobHostTrees, ARemovalEndsWhatHasLeftTheSession) {
  ASSERT_TRUE(submit(jobWithRunaway("exec sleep 1000")));
  const UniqueFd runaway = nextProcess();
  ASSERT_FALSE(hasEnded(runaway));
  const std::string group = groupOf(kTreeLabel);
  EXPECT_TRUE(std::filesystem::exists(group));
  const platform::Instant before = loop().now();
  ASSERT_TRUE(remove(kTreeLabel));
  RecordProperty("milliseconds", static_cast<int>((loop().now() - before) / 1ms));
  EXPECT_TRUE(hasEnded(runaway));
  EXPECT_FALSE(std::filesystem::exists(group));
}

TEST_F(JobHostTrees, TheEndOfALeaderEndsItsTree) {
  Dictionary job = jobWithRunaway("exit 0");
  job.set("KeepAlive", false);
  job.set("RunAtLoad", true);
  ASSERT_TRUE(submit(job));
  EXPECT_TRUE(ends(nextProcess()));
}

// Some kernels kill what begins in a group that was killed before.
TEST_F(JobHostTrees, AKilledGroupTakesTheNextProcess) {
  ASSERT_TRUE(submit(jobWithRunaway("exit 0")));
  for (int run = 0; run < 3; ++run) EXPECT_TRUE(ends(nextProcess())) << run;
  const auto ends = history(kTreeLabel).lastEnds;
  ASSERT_GE(ends.size(), 2u);
  for (const auto& end : ends) EXPECT_EQ(end.waitStatus, 0);
}

TEST_F(JobHostTrees, TheTreeOfALeaderThatEndedMeanwhileIsKilled) {
  Dictionary job = jobWithRunaway("exec sleep 1000");
  job.set("ThrottleInterval", 1000);
  ASSERT_TRUE(submit(job));
  const UniqueFd runaway = nextProcess();
  const auto leader = pidOf(kTreeLabel);
  dropHost();
  ::kill(leader, SIGKILL);
  ASSERT_FALSE(hasEnded(runaway));
  startHost();
  EXPECT_TRUE(ends(runaway));
}

TEST_F(JobHostTrees, ATreeIsRemovedByTheNextHost) {
  ASSERT_TRUE(submit(jobWithRunaway("exec sleep 1000")));
  const UniqueFd runaway = nextProcess();
  dropHost();
  startHost();
  ASSERT_FALSE(hasEnded(runaway));
  ASSERT_TRUE(remove(kTreeLabel));
  EXPECT_TRUE(hasEnded(runaway));
}

TEST_F(JobHostTrees, ATreeOfAJobThatNobodyKnowsIsKilled) {
  ASSERT_TRUE(submit(jobWithRunaway("exec sleep 1000")));
  const UniqueFd runaway = nextProcess();
  const auto leader = pidOf(kTreeLabel);
  dropHost();
  ::kill(leader, SIGKILL);
  ASSERT_TRUE(std::filesystem::remove(root_.path("run/vantor/launchd.state")));
  startHost();
  EXPECT_TRUE(ends(runaway));
}

TEST_F(JobHostTrees, AnAbandonedProcessSurvivesItsJob) {
  Dictionary job = jobWithRunaway("exit 0");
  job.set("AbandonProcessGroup", true);
  job.set("KeepAlive", false);
  job.set("RunAtLoad", true);
  ASSERT_TRUE(submit(job));
  const UniqueFd runaway = nextProcess();
  ASSERT_TRUE(remove(kTreeLabel));
  EXPECT_FALSE(std::filesystem::exists(groupOf(kTreeLabel)));
  EXPECT_FALSE(std::filesystem::exists(groupOf(kTreeLabel, true)));
  dropHost();
  startHost();
  EXPECT_FALSE(hasEnded(runaway));
  ::syscall(SYS_pidfd_send_signal, runaway.get(), SIGKILL, nullptr, 0);
  EXPECT_TRUE(ends(runaway));
}

TEST_F(JobHostTrees, AnAbandonedProcessThatCannotBeMovedIsNotKilled) {
  Dictionary job = jobWithRunaway("exec sleep 1000");
  job.set("AbandonProcessGroup", true);
  ASSERT_TRUE(submit(job));
  const UniqueFd runaway = nextProcess();
  const std::filesystem::path group = groupOf(kTreeLabel, true);
  ASSERT_TRUE(std::filesystem::exists(group));
  // The one group that there is may have no other beside it.
  std::ofstream(group.parent_path() / "cgroup.max.descendants") << "1" << std::flush;
  ASSERT_TRUE(remove(kTreeLabel));
  dropHost();
  startHost();
  EXPECT_FALSE(hasEnded(runaway));
  EXPECT_TRUE(std::filesystem::exists(group));
  ::syscall(SYS_pidfd_send_signal, runaway.get(), SIGKILL, nullptr, 0);
  EXPECT_TRUE(ends(runaway));
}

TEST_F(JobHostTrees, AGroupThatAKilledHostLeftIsRemoved) {
  ASSERT_TRUE(submit(scriptJob(kTreeLabel, "exec sleep 1000")));
  const std::string group = groupOf(kTreeLabel);
  const auto leader = pidOf(kTreeLabel);
  EXPECT_TRUE(std::filesystem::exists(group));
  dropHost();
  ::kill(leader, SIGKILL);
  ASSERT_EQ(::waitpid(leader, nullptr, 0), leader);
  ASSERT_TRUE(std::filesystem::remove(root_.path("run/vantor/launchd.state")));
  startHost();
  EXPECT_FALSE(std::filesystem::exists(group));
}

TEST_F(JobHostTrees, LabelsOfAnyKindHaveGroupsOfTheirOwn) {
  for (const std::string& label :
       std::vector<std::string>{"cgroup.procs", "../up", "a/b", "100%", std::string(255, 'x'),
                                std::string(254, 'x') + "y", "\xC3\xA4"}) {
    ASSERT_TRUE(submit(scriptJob(label, "exec sleep 1000"))) << label;
    const auto procs = platform::contentOfKernelFile(groupOf(label) + "/cgroup.procs");
    EXPECT_EQ(procs, std::to_string(pidOf(label)) + "\n") << label;
  }
}

}  // namespace
}  // namespace jobhost
