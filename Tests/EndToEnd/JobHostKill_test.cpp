// A job host that is killed at any moment loses no job and doubles none.

#include <algorithm>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/EndToEnd/JobHostKill_fixture.h"

namespace platform {
namespace {

using Call = TracedCall;

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
  expectKilled(killed, calls, {"waitid", "pidfd_send_signal", "write", "clone"});
}

TEST_F(JobHostKill, AtEverySystemCallOfANewProcess) {
  // The throttle is long, so that it is not restarted meanwhile and killed at the same call. It
  // belongs to the label, so each job has another one.
  int number = kJobs;
  std::string extra = label(number);
  const auto order = [&] { return "submit " + extra + " 1000"; };
  const std::string trace = root_.path("trace");
  ProcessId process = 0;
  {
    const Tracer tracer(host_->process(), {"-f"}, trace);
    host_->send(order());
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
    extra = label(++number);
    std::vector<std::string> options = call.killThere();
    options.push_back("-f");
    std::optional<std::string> answer;
    {
      const Tracer tracer(host_->process(), options);
      host_->send(order());
      answer = host_->nextLineIfAny();
    }
    const bool isRefused = answer && answer->starts_with("refused");
    if (isRefused) killed.push_back(call);
    if (!answer) {  // The host itself made this call first.
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
    // The new process is delayed at its first step, before it has recorded itself.
    Tracer tracer(host_->process(), {"-f", "-e", "inject=setsid:delay_enter=300000"});
    host_->send("submit " + extra + " 0");
    tracer.nextMessage();
    host_->signal(SIGKILL);
    EXPECT_EQ(host_->waitForExit(), kKilled);
    // The next host waits for it, and then knows it.
    startHost();
  }
  auto now = list();
  ASSERT_TRUE(now.contains(extra));
  expectNoneLostNoneDoubled();
  expectKilledJobIsStartedAgain(extra, now[extra]);
}

TEST_F(JobHostKill, IsNotNeededIfAProcessIsStoppedBeforeItsProgram) {
  const std::string extra = label(kJobs);
  // It is stopped while it still has the host's ids, and when it has its user's.
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

// The same holds for an unprivileged user's host.
class JobHostKillAsNobody : public testing::TestWithParam<const char*> {};

TEST_P(JobHostKillAsNobody, LosesAndDoublesNone) {
  if (::geteuid() != 0) GTEST_SKIP() << "the tests of JobHostKill are an ordinary user's already";
  runTestAsNobody(std::string("JobHostKill.") + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Each, JobHostKillAsNobody,
                         testing::Values("AtEverySystemCallOfASubmission",
                                         "AtEverySystemCallOfAnExit",
                                         "AtEverySystemCallOfANewProcess",
                                         "WhileAProcessHasNotYetExecutedItsProgram",
                                         "IsNotNeededIfAProcessIsStoppedBeforeItsProgram"),
                         [](const auto& name) { return std::string(name.param); });

}  // namespace
}  // namespace platform
