// A job host that is killed at any moment loses no job and doubles none.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/UniqueFd.h"
#include "Platform/Testing/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/Tracing.h"

namespace {

using Call = platform::TracedCall;
using platform::callsIn;
using platform::canTrace;
using platform::ChildProgram;
using platform::ExitStatus;
using platform::ProcessId;
using platform::Tracer;

constexpr int kJobs = 20;
constexpr ExitStatus kKilled{ExitStatus::Kind::kSignalled, SIGKILL};

std::string firstArgument(const std::filesystem::path& process) {
  for (;;) {
    std::ifstream file(process / "cmdline");
    std::string first;
    std::getline(file, first, '\0');
    std::error_code error;
    const auto program = std::filesystem::read_symlink(process / "exe", error);
    // Its arguments come a moment after its program.
    if (!first.empty() || program.filename() != "sleep") return first;
  }
}

// Processes whose first argument is a label, by that. What has ended has none.
std::multimap<std::string, ProcessId> processesByLabel(const std::string& prefix) {
  std::multimap<std::string, ProcessId> processes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != name.npos) continue;
    const std::string first = firstArgument(entry.path());
    if (first.starts_with(prefix)) processes.emplace(first, std::stoi(name));
  }
  return processes;
}

class JobHostKill : public testing::Test {
 protected:
  void SetUp() override {
    if (!canTrace()) GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
    startHost();
    for (int i = 0; i < kJobs; ++i) {
      host_->send("submit " + label(i) + " 0");
      ASSERT_EQ(host_->nextLine(), "done");
    }
    jobs_ = list();
    ASSERT_EQ(jobs_.size(), kJobs);
  }

  void TearDown() override {
    host_.reset();
    for (const auto& [label, process] : processesByLabel(prefix_)) ::kill(process, SIGKILL);
  }

  // Also shows what it writes to the log, where something is wrong.
  void startHost() {
    host_ = std::make_unique<ChildProgram>(std::vector<std::string>{JOB_HOST_PROGRAM, root_.path()},
                                           std::vector<std::string>{});
    ASSERT_EQ(host_->nextLine(), "ready") << host_->errors();
  }

  // A call may also come behind the answer, or not at all where they differ from those traced.
  void endHost() {
    host_->signal(SIGKILL);
    EXPECT_EQ(host_->waitForExit(), kKilled);
  }

  // Which calls a host makes beside those that it must is a matter of time: of two events it may
  // learn in one wait or in two. So it does not come to each that was traced. But it was killed at
  // most of them, and at the first of each kind in `changes`, without which nothing is done.
  static void expectKilled(const std::vector<Call>& killed, const std::vector<Call>& traced,
                           const std::vector<std::string>& changes) {
    EXPECT_GT(2 * killed.size(), traced.size());
    for (const std::string& change : changes) {
      const bool isKilled = std::ranges::any_of(
          killed, [&](const Call& call) { return call.name == change && call.number == 1; });
      EXPECT_TRUE(isKilled) << "never killed at " << change;
    }
    RecordProperty("calls", static_cast<int>(traced.size()));
    RecordProperty("kills", static_cast<int>(killed.size()));
  }

  std::string label(int number) const { return prefix_ + std::to_string(number); }

  std::map<std::string, ProcessId> list() {
    host_->send("list");
    return restOfList().value_or(std::map<std::string, ProcessId>());
  }

  // Nothing where the host ends before.
  std::optional<std::map<std::string, ProcessId>> restOfList() {
    std::map<std::string, ProcessId> jobs;
    for (;;) {
      const auto line = host_->nextLineIfAny();
      if (!line) return std::nullopt;
      if (*line == "end") return jobs;
      std::istringstream words(*line);
      std::string label;
      words >> label >> jobs[label];
    }
  }

  // What the host says is what there is: each job one process, and no other process.
  void expectNoneLostNoneDoubled() {
    std::multimap<std::string, ProcessId> listed;
    for (const auto& [label, process] : list()) listed.emplace(label, process);
    EXPECT_EQ(listed, processesByLabel(prefix_));
  }

  static void killAndAwait(ProcessId process) {
    const platform::UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    ASSERT_TRUE(pidfd);
    ASSERT_EQ(::kill(process, SIGKILL), 0);
    pollfd entry{pidfd.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
  }

  void expectKilledJobIsStartedAgain(const std::string& label, ProcessId process) {
    killAndAwait(process);
    const ProcessId next = list()[label];
    EXPECT_GT(next, 0);
    EXPECT_NE(next, process);
  }

  platform::TemporaryFolder root_;
  // Told from what another test, or another run, has left.
  const std::string prefix_ = "com.example." + std::to_string(::getpid()) + ".";
  std::unique_ptr<ChildProgram> host_;
  std::map<std::string, ProcessId> jobs_;
};

TEST_F(JobHostKill, AtEverySystemCallOfASubmission) {
  const std::string extra = label(kJobs);
  const auto removeExtra = [&] {
    host_->send("remove " + extra);
    ASSERT_EQ(host_->nextLine(), "done");
  };
  const std::string trace = root_.path("trace");
  {
    const Tracer tracer(host_->process(), {}, trace);
    host_->send("submit " + extra + " 0");
    ASSERT_EQ(host_->nextLine(), "done");
  }
  removeExtra();
  const std::vector<Call> calls = callsIn(trace);
  std::vector<Call> killed;
  for (const Call& call : calls) {
    SCOPED_TRACE("killed at call " + std::to_string(call.number) + " of " + call.name);
    std::optional<std::string> answer;
    {
      const Tracer tracer(host_->process(), call.killThere());
      host_->send("submit " + extra + " 0");
      answer = host_->nextLineIfAny();
    }
    if (!answer) killed.push_back(call);
    endHost();
    startHost();
    auto now = list();
    EXPECT_TRUE(now.contains(extra) || !answer);
    if (now.contains(extra)) {
      expectKilledJobIsStartedAgain(extra, now[extra]);
      expectNoneLostNoneDoubled();
      removeExtra();
      now.erase(extra);
    }
    ASSERT_EQ(now, jobs_);
    expectNoneLostNoneDoubled();
    if (HasFailure()) return;
  }
  expectKilled(killed, calls, {"write", "clone"});
}

TEST_F(JobHostKill, AtEverySystemCallOfAnExit) {
  const std::string victim = label(kJobs / 2);
  const std::string trace = root_.path("trace");
  {
    const Tracer tracer(host_->process(), {}, trace);
    expectKilledJobIsStartedAgain(victim, jobs_[victim]);
  }
  const std::vector<Call> calls = callsIn(trace);
  jobs_ = list();
  std::vector<Call> killed;
  for (const Call& call : calls) {
    SCOPED_TRACE("killed at call " + std::to_string(call.number) + " of " + call.name);
    const ProcessId before = jobs_[victim];
    {
      const Tracer tracer(host_->process(), call.killThere());
      killAndAwait(before);
      host_->send("list");
      if (!restOfList()) killed.push_back(call);
    }
    endHost();
    startHost();
    auto now = list();
    EXPECT_GT(now[victim], 0);
    EXPECT_NE(now[victim], before);
    expectNoneLostNoneDoubled();
    jobs_[victim] = now[victim];
    ASSERT_EQ(now, jobs_);
    if (HasFailure()) return;
  }
  expectKilled(killed, calls, {"waitid", "kill", "write", "clone"});
}

TEST_F(JobHostKill, AtEverySystemCallOfANewProcess) {
  const std::string extra = label(kJobs);
  // So that it is not started again meanwhile, only to be killed in the same place.
  const std::string order = "submit " + extra + " 1000";
  const std::string trace = root_.path("trace");
  ProcessId process = 0;
  {
    const Tracer tracer(host_->process(), {"-f"}, trace);
    host_->send(order);
    ASSERT_EQ(host_->nextLine(), "done");
    process = list()[extra];
  }
  host_->send("remove " + extra);
  ASSERT_EQ(host_->nextLine(), "done");
  std::vector<Call> calls = callsIn(trace, std::to_string(process) + " ");
  const auto execute = std::ranges::find(calls, "execve", &Call::name);
  ASSERT_NE(execute, calls.end());
  calls.erase(execute + 1, calls.end());
  std::vector<Call> killed;
  for (const Call& call : calls) {
    SCOPED_TRACE("killed at call " + std::to_string(call.number) + " of " + call.name);
    std::vector<std::string> options = call.killThere();
    options.push_back("-f");
    std::optional<std::string> answer;
    {
      const Tracer tracer(host_->process(), options);
      host_->send(order);
      answer = host_->nextLineIfAny();
    }
    const bool isRefused = answer && answer->starts_with("refused");
    if (isRefused) killed.push_back(call);
    if (!answer) {  // It was the host that came there first.
      EXPECT_EQ(host_->waitForExit(), kKilled);
      startHost();
    }
    auto now = list();
    EXPECT_TRUE(now.contains(extra) || answer != "done");
    EXPECT_FALSE(now.contains(extra) && isRefused);
    if (now.contains(extra)) {
      EXPECT_EQ(processesByLabel(extra).size(), now[extra] > 0 ? 1 : 0);
      host_->send("remove " + extra);
      ASSERT_EQ(host_->nextLine(), "done");
      now.erase(extra);
    }
    ASSERT_EQ(now, jobs_);
    expectNoneLostNoneDoubled();
    if (HasFailure()) return;
  }
  expectKilled(killed, calls, {"setsid", "openat", "dup3", "chdir"});
}

TEST_F(JobHostKill, WhileAProcessHasNotYetExecutedItsProgram) {
  const std::string extra = label(kJobs);
  {
    // The new process stands still at its first step, before it has recorded itself.
    Tracer tracer(host_->process(), {"-f", "-e", "inject=setsid:delay_enter=300000"});
    host_->send("submit " + extra + " 0");
    tracer.nextMessage();
    host_->signal(SIGKILL);
    EXPECT_EQ(host_->waitForExit(), kKilled);
    // Waits for it, and then knows it.
    startHost();
  }
  auto now = list();
  ASSERT_TRUE(now.contains(extra));
  expectNoneLostNoneDoubled();
  expectKilledJobIsStartedAgain(extra, now[extra]);
}

TEST_F(JobHostKill, IsNotNeededWhenSomebodyStopsAProcessBeforeItsProgram) {
  const std::string extra = label(kJobs);
  // While it is the host's still, and when it has become its user's.
  for (const std::string call : {"getpid", "chdir"}) {
    {
      const Tracer tracer(host_->process(), {"-f", "-e", "inject=" + call + ":signal=SIGSTOP"});
      host_->send("submit " + extra + " 0");
      EXPECT_EQ(host_->nextLine(), "done");
    }
    EXPECT_EQ(list().size(), kJobs + 1);
    expectNoneLostNoneDoubled();
    host_->send("remove " + extra);
    ASSERT_EQ(host_->nextLine(), "done");
  }
  EXPECT_EQ(list(), jobs_);
}

// An ordinary user's host is as sure.
class JobHostKillAsNobody : public testing::TestWithParam<const char*> {};

TEST_P(JobHostKillAsNobody, LosesAndDoublesNone) {
  if (::geteuid() != 0) GTEST_SKIP() << "the tests of JobHostKill are an ordinary user's already";
  platform::runTestAsNobody(std::string("JobHostKill.") + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Each, JobHostKillAsNobody,
                         testing::Values("AtEverySystemCallOfASubmission",
                                         "AtEverySystemCallOfAnExit",
                                         "AtEverySystemCallOfANewProcess",
                                         "WhileAProcessHasNotYetExecutedItsProgram",
                                         "IsNotNeededWhenSomebodyStopsAProcessBeforeItsProgram"),
                         [](const auto& name) { return std::string(name.param); });

}  // namespace
