#include "Platform/Linux/Processes/PidfdExitWatcher.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <csignal>
#include <latch>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher_contract.h"

namespace platform {
namespace {

// SIGUSR1 with an exit code ends the process. It is blocked before the fork, so that it can't come
// too early.
[[noreturn]] void liveUntilTold() {
  ::alarm(150);  // In case the test program crashes.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  siginfo_t info{};
  while (::sigwaitinfo(&signals, &info) != SIGUSR1) {
  }
  ::_exit(info.si_value.sival_int);
}

class RealProcesses final : public ExitWatcherHarness {
 public:
  RealProcesses() {
    EXPECT_TRUE(raiseDescriptorLimit());
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    EXPECT_EQ(::sigprocmask(SIG_BLOCK, &signals, &mask_), 0);
  }

  ~RealProcesses() override {
    for (const ProcessId process : alive_) ::kill(process, SIGKILL);
    while (::waitpid(-1, nullptr, 0) > 0) {
    }
    ::sigprocmask(SIG_SETMASK, &mask_, nullptr);
    threadMayEnd_.count_down();
  }

  RunLoop& loop() override { return *loop_; }
  ExitWatcher& watcher() override { return watcher_; }

  ProcessId startChild() override {
    const pid_t child = ::fork();
    if (child == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      liveUntilTold();
    }
    EXPECT_GT(child, 0);
    alive_.insert(child);
    return child;
  }

  // A grandchild whose parent has ended.
  ProcessId startForeignProcess() override {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const UniqueFd readEnd(ends[0]);
    UniqueFd writeEnd(ends[1]);
    const pid_t parent = ::fork();
    if (parent == 0) {
      const pid_t grandchild = ::fork();
      if (grandchild == 0) liveUntilTold();
      ::_exit(::write(writeEnd.get(), &grandchild, sizeof(grandchild)) == sizeof(pid_t) ? 0 : 1);
    }
    EXPECT_GT(parent, 0);
    EXPECT_EQ(::waitpid(parent, nullptr, 0), parent);
    pid_t process = 0;
    EXPECT_EQ(::read(readEnd.get(), &process, sizeof(process)), sizeof(process));
    alive_.insert(process);
    return process;
  }

  ProcessId startThread() override {
    std::latch started(1);
    thread_ = std::jthread([&] {
      threadId_ = ::gettid();
      started.count_down();
      threadMayEnd_.wait();
    });
    started.wait();
    return threadId_;
  }

  void end(ProcessId process, ExitStatus status) override {
    alive_.erase(process);
    if (status.kind == ExitStatus::Kind::kExited) {
      EXPECT_EQ(::sigqueue(process, SIGUSR1, sigval{status.number}), 0);
    } else {
      EXPECT_EQ(::kill(process, status.number), 0);
    }
  }

  void awaitEnd(ProcessId process) override {
    const UniqueFd pidfd(::pidfd_open(process, 0));
    if (!pidfd) {
      EXPECT_EQ(errno, ESRCH);
      return;
    }
    pollfd entry{pidfd.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 60'000), 1);
  }

  void reap(ProcessId child) override { EXPECT_EQ(::waitpid(child, nullptr, 0), child); }

  bool isReaped(ProcessId child) override {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0;
  }

  void withoutDescriptors(const std::function<void()>& action) override {
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    action();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  }

 private:
  sigset_t mask_{};
  std::set<ProcessId> alive_;
  std::latch threadMayEnd_{1};
  ProcessId threadId_ = 0;
  std::jthread thread_;
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  PidfdExitWatcher watcher_{*loop_};
};

std::unique_ptr<ExitWatcherHarness> makeExitHarness() { return std::make_unique<RealProcesses>(); }

INSTANTIATE_TEST_SUITE_P(Pidfd, ExitWatcherContract, testing::Values(&makeExitHarness));

class PidfdExitWatcherTest : public testing::Test {
 protected:
  // Runs the loop until the end of `process` is reported.
  std::optional<ExitStatus> statusOf(ProcessId process) {
    std::optional<ExitStatus> reported = ExitStatus{ExitStatus::Kind::kSignalled, -1};
    const auto handle =
        processes_.watcher().watchExit(process, [&](std::optional<ExitStatus> status) {
          reported = status;
          processes_.loop().stop();
        });
    EXPECT_TRUE(handle) << describe(handle.error());
    if (handle) processes_.loop().run();
    return reported;
  }

  RealProcesses processes_;
};

// Kernels differ in their errno for a number that only a process group still uses.
TEST_F(PidfdExitWatcherTest, AProcessWhoseGroupOutlivesItHasEnded) {
  const ProcessId leader = processes_.startChild();
  const ProcessId member = processes_.startChild();
  ASSERT_EQ(::setpgid(leader, 0), 0);
  ASSERT_EQ(::setpgid(member, leader), 0);
  processes_.end(leader, {ExitStatus::Kind::kExited, 0});
  processes_.reap(leader);
  EXPECT_EQ(statusOf(leader), std::nullopt);
}

TEST_F(PidfdExitWatcherTest, AChildThatTheSystemReapsItselfHasNoStatus) {
  struct sigaction before{};
  struct sigaction ignore{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(::sigaction(SIGCHLD, &ignore, &before), 0);
  const ProcessId child = processes_.startChild();
  processes_.end(child, {ExitStatus::Kind::kExited, 3});
  EXPECT_EQ(statusOf(child), std::nullopt);
  ASSERT_EQ(::sigaction(SIGCHLD, &before, nullptr), 0);
}

TEST_F(PidfdExitWatcherTest, TheProgramItselfCanBeWatched) {
  const auto handle = processes_.watcher().watchExit(::getpid(), [](auto) { ADD_FAILURE(); });
  EXPECT_TRUE(handle);
}

TEST_F(PidfdExitWatcherTest, AStoppedChildHasNotEnded) {
  const ProcessId child = processes_.startChild();
  bool reported = false;
  const auto handle = processes_.watcher().watchExit(child, [&](auto) { reported = true; });
  ASSERT_TRUE(handle);
  siginfo_t info{};
  ASSERT_EQ(::kill(child, SIGSTOP), 0);
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED), 0);
  processes_.loop().post([&] { processes_.loop().stop(); });
  processes_.loop().run();
  EXPECT_FALSE(reported);
}

}  // namespace
}  // namespace platform
