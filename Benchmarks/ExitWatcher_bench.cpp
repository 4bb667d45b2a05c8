// The time from the end of a watched process to its callback.

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <chrono>
#include <csignal>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/Processes/PidfdExitWatcher.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace benchmarks {
namespace {

using platform::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kProcesses = 1000;

const bool kAdded = atMost({"exit-callback", 1.5,
                            "kill() of one of 1,000 watched processes to its callback / to the "
                            "return of poll(2) on its pidfd, 1,000 processes living"});

pid_t startProcess() {
  const pid_t child = ::fork();
  if (child != 0) return child;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) ::pause();
}

// The same number of living processes for both measurements.
class Processes {
 public:
  Processes() {
    static_cast<void>(platform::raiseDescriptorLimit());
    for (pid_t& process : processes_) process = startProcess();
  }
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;
  ~Processes() {
    for (const pid_t process : processes_) ::kill(process, SIGKILL);
    for (const pid_t process : processes_) ::waitpid(process, nullptr, 0);
  }

  pid_t& operator[](std::size_t index) { return processes_[index]; }

 private:
  std::vector<pid_t> processes_ = std::vector<pid_t>(kProcesses);
};

void subject(benchmark::State& state) {
  Processes processes;
  auto created = platform::AsioRunLoop::create();
  if (!created) return state.SkipWithError("no run loop");
  platform::AsioRunLoop& loop = **created;
  platform::PidfdExitWatcher watcher(loop);
  std::vector<std::unique_ptr<platform::RunLoopHandle>> watches(kProcesses);
  Clock::time_point called;
  const auto watch = [&](std::size_t index) {
    auto handle = watcher.watchExit(processes[index], [&](auto) {
      called = Clock::now();
      loop.stop();
    });
    if (handle) watches[index] = std::move(*handle);
    return handle.has_value();
  };
  for (std::size_t i = 0; i < kProcesses; ++i) {
    if (!watch(i)) return state.SkipWithError("no descriptor left");
  }
  std::size_t next = 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    ::kill(processes[next], SIGKILL);
    loop.run();
    state.SetIterationTime(std::chrono::duration<double>(called - start).count());
    processes[next] = startProcess();
    if (!watch(next)) return state.SkipWithError("no descriptor left");
    next = (next + 1) % kProcesses;
  }
}
BENCHMARK(subject)->Name("exit-callback/subject")->UseManualTime();

void baseline(benchmark::State& state) {
  Processes processes;
  std::size_t next = 0;
  for (auto _ : state) {
    const UniqueFd pidfd(::pidfd_open(processes[next], 0));
    if (!pidfd) return state.SkipWithError("pidfd_open");
    pollfd entry{pidfd.get(), POLLIN, 0};
    const Clock::time_point start = Clock::now();
    ::kill(processes[next], SIGKILL);
    ::poll(&entry, 1, -1);
    const Clock::time_point called = Clock::now();
    state.SetIterationTime(std::chrono::duration<double>(called - start).count());
    ::waitpid(processes[next], nullptr, 0);
    processes[next] = startProcess();
    next = (next + 1) % kProcesses;
  }
}
BENCHMARK(baseline)->Name("exit-callback/baseline")->UseManualTime();

}  // namespace
}  // namespace benchmarks
