// Numbers of processes that are reused at once, which needs a pid namespace of the test's own.

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/Processes/ProcessTable.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {
namespace {

using platform::ProcessId;
using platform::UniqueFd;

constexpr int kReuses = 1000;
// The exit status of a scenario that can't be played here.
constexpr int kNotPermitted = 77;

// Runs in process 1 of the namespace, where no test can fail: each step returns whether it went
// well.
class ReuseScenario {
 public:
  explicit ReuseScenario(const std::string& state)
      : file_(::open(state.c_str(), O_RDWR | O_APPEND | O_CLOEXEC)) {}

  int play() {
    if (!isNext(1000) || !pidfdsAreUnique()) return kNotPermitted;
    for (int i = 0; i < kReuses; ++i) {
      if (!reuseOnce()) return 1;
    }
    return 0;
  }

 private:
  static bool isNext(ProcessId number) {
    std::ofstream last("/proc/sys/kernel/ns_last_pid");
    last << number - 1 << std::flush;
    return last.good();
  }

  // A process that another host could have started.
  static StartFields startElsewhere() {
    StartFields identity;
    identity.process = ::fork();
    if (identity.process == 0) {
      ::setsid();
      for (;;) ::pause();
    }
    const auto stat = statOf(std::to_string(identity.process));
    if (stat) identity.startTicks = startTicksIn(stat->data(), stat->size());
    // As in each real record: many processes begin within one tick.
    const UniqueFd pidfd(::pidfd_open(identity.process, 0));
    struct stat status{};
    if (::fstat(pidfd.get(), &status) == 0) identity.pidfdInode = status.st_ino;
    return identity;
  }

  // The process that was taken over ends and is reaped by its parent. The next process of the host
  // gets its number before the host has looked.
  bool reuseOnce() {
    const StartFields identity = startElsewhere();
    int firstEnds = 0;
    const auto first = processes_->takeOver(identity, [&](Ending) { ++firstEnds; });
    if (!first) return false;
    ::kill(identity.process, SIGKILL);
    if (::waitpid(identity.process, nullptr, 0) != identity.process) return false;
    if (!isNext(identity.process)) return false;
    JobDefinition job;
    job.label = "com.example.job";
    job.program = "/bin/sleep";
    job.arguments = {"sleep", "1000"};
    std::vector<std::uint8_t> record =
        makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    Ending secondEnd;
    const auto second =
        processes_->start(job, {file_.get(), record}, {}, [&](Ending end) { secondEnd = end; });
    if (!second || (*second)->identity().process != identity.process) return false;
    const UniqueFd pidfd(::pidfd_open(identity.process, 0));
    // No signal to the first one reaches the second, and each end is reported to its own owner.
    static_cast<void>((*first)->signalGroup(SIGKILL));
    if ((*first)->hasRemainingProcesses()) return false;
    (*first)->reportIfEnded();
    (*second)->reportIfEnded();
    if (firstEnds != 1 || secondEnd) return false;
    if (processes_->takeOver(identity, [](Ending) {})) return false;
    if (processes_->remainsOf(identity)) return false;
    if (!(*second)->signalGroup(SIGTERM)) return false;
    siginfo_t info{};
    ::waitid(P_PIDFD, static_cast<id_t>(pidfd.get()), &info, WEXITED | WNOWAIT);
    (*second)->reportIfEnded();
    return firstEnds == 1 && secondEnd && secondEnd->status.number == SIGTERM;
  }

  UniqueFd file_;
  std::unique_ptr<platform::AsioRunLoop> loop_ = std::move(*platform::AsioRunLoop::create());
  std::unique_ptr<LinuxProcesses> processes_ = std::move(*LinuxProcesses::create(*loop_, 1024, 1));
};

// In a new pid namespace with its own /proc. Returns the scenario's exit status.
int playInNamespace(const std::string& state) {
  if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) return kNotPermitted;
  const pid_t first = ::fork();
  if (first == 0) {
    const bool isMounted = ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           ::mount("proc", "/proc", "proc", 0, nullptr) == 0;
    ::_exit(isMounted ? ReuseScenario(state).play() : kNotPermitted);
  }
  int status = 0;
  ::waitpid(first, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}

TEST(NumberReuse, AReusedNumberNeverMeansAnotherJob) {
  platform::TemporaryFolder folder;
  const std::string state = folder.write("state", "");
  const pid_t helper = ::fork();
  if (helper == 0) ::_exit(playInNamespace(state));
  int status = 0;
  ASSERT_EQ(::waitpid(helper, &status, 0), helper);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kNotPermitted) GTEST_SKIP() << "no pid namespace can be made here";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace jobhost
