// The time from the end of a service to the line of the operator's command that says so.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <benchmark/benchmark.h>
#include <poll.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RealDaemon.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr int kWatchedServices = 20;
constexpr int kKills = 100;  // for each measurement

const bool kAdded[] = {
    atMost({"exit-notice", 12,
            "SIGKILL of one of 20 services to the line of `servicemanagerctl watch --json`, the "
            "median of 100 / SIGKILL to its pidfd readable"}),
    atMost({"exit-notice-p99", 12, "the same, the second slowest of 100"}),
};

// The daemon, and the operator's command that watches it.
class WatchedDaemon {
 public:
  WatchedDaemon()
      : daemon_(kWatchedServices),
        watch_({daemon_.root().host().controlProgram(), "watch", "--json"}, {}) {
    watch_.nextErrorLine();  // It has registered.
    for (int i = 0; i < kWatchedServices; ++i) {
      const std::string label = DaemonRoot::label(i);
      processes_[label] = daemon_.root().processOf(label);
    }
  }

  bool isReady() const { return daemon_.isReady() && !hasFailed(); }
  ProcessId processOf(const std::string& label) const { return processes_.at(label); }

  // Returns at the line about the end of the service, or about the start of another process.
  void awaitEnd(const std::string& label) { awaitLine(label, "ended"); }
  void awaitStart(const std::string& label) {
    const std::string line = awaitLine(label, "running");
    processes_[label] = std::atoi(line.c_str() + line.find("\"pid\":") + 6);
  }

 private:
  std::string awaitLine(const std::string& label, const std::string& state) {
    const std::string part = "\"label\":\"" + label + "\",\"state\":\"" + state + "\"";
    for (;;) {
      std::string line = watch_.nextLine();
      if (line.find(part) != std::string::npos || hasFailed()) return line;
    }
  }

  RealDaemon daemon_;
  ChildProgram watch_;
  std::map<std::string, ProcessId> processes_;
};

// Kills the services one after the other, each when the one before has a process again, which is
// while the daemon still evaluates the others. `measure` kills, and returns the time.
std::vector<double> timesOfKills(WatchedDaemon& daemon,
                                 const std::function<double(const std::string&)>& measure) {
  std::vector<double> times;
  for (int kill = 0; kill < kKills && !hasFailed(); ++kill) {
    const std::string label = DaemonRoot::label(kill % kWatchedServices);
    times.push_back(measure(label));
    daemon.awaitStart(label);
  }
  std::ranges::sort(times);
  return times;
}

enum class Statistic { kMedian, kNearlySlowest };

void report(benchmark::State& state, Statistic statistic,
            const std::function<double(WatchedDaemon&, const std::string&)>& measure) {
  WatchedDaemon daemon;
  if (!daemon.isReady()) return state.SkipWithError("no daemon");
  for (auto _ : state) {
    const std::vector<double> times =
        timesOfKills(daemon, [&](const std::string& label) { return measure(daemon, label); });
    if (times.size() != kKills) return state.SkipWithError("a service did not come back");
    state.SetIterationTime(statistic == Statistic::kMedian ? times[kKills / 2] : times[kKills - 2]);
  }
}

double untilLine(WatchedDaemon& daemon, const std::string& label) {
  const auto start = Clock::now();
  ::kill(daemon.processOf(label), SIGKILL);
  daemon.awaitEnd(label);
  return since(start);
}

double untilPidfd(WatchedDaemon& daemon, const std::string& label) {
  const ProcessId process = daemon.processOf(label);
  const UniqueFd pidfd(::pidfd_open(process, 0));
  pollfd entry{pidfd.get(), POLLIN, 0};
  const auto start = Clock::now();
  ::kill(process, SIGKILL);
  ::poll(&entry, 1, -1);
  const double time = since(start);
  daemon.awaitEnd(label);
  return time;
}

void registerGroup(const char* group, Statistic statistic) {
  for (const auto& [kind, measure] :
       {std::pair("/subject", &untilLine), std::pair("/baseline", &untilPidfd)}) {
    benchmark::RegisterBenchmark(
        (std::string(group) + kind).c_str(),
        [statistic, measure](benchmark::State& state) { report(state, statistic, measure); })
        ->UseManualTime()
        ->Iterations(1);
  }
}

const bool kRegistered = [] {
  registerGroup("exit-notice", Statistic::kMedian);
  registerGroup("exit-notice-p99", Statistic::kNearlySlowest);
  return true;
}();

}  // namespace
}  // namespace benchmarks
