// A daemon in a storm against the same daemon on a quiet machine, in one run: two storms of
// VANTOR_STORM_SECONDS each (20 by default), in which the operator asks and services are killed.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RealDaemon.h"
#include "Tests/EndToEnd/Storm.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr double kAllowedDelay = 0.05;  // seconds that the operator may wait longer
constexpr int kRoundsForEachStop = 9;   // Another service is stopped each time.
constexpr useconds_t kPause = 100'000;  // so that each service runs for over a second

const bool kAdded[] = {
    atMost({"storm-list-p99", 1,
            "`list` in a storm, the 99th percentile / on a quiet machine, + 50 ms"}),
    atMost({"storm-explain-p99", 1, "`explain` of a healthy service, the same"}),
    atMost({"storm-explain-switch", 1,
            "`explain` of a service whose settings server is stopped, the median / on a quiet "
            "machine, + 50 ms"}),
    atMost({"storm-restart", 1.5,
            "SIGKILL of a healthy service to its client told of the new process, the median / the "
            "same on a quiet machine"}),
    atMost({"storm-stop", 1, "the slowest `stop` of a healthy service / a second"}),
    atMost({"storm-sigterm", 2, "SIGTERM to the end of the daemon / a second"}),
    atMost({"storm-memory", 1.1, "bytes (for ns) of the daemon at the end / after a third of it"}),
};

double secondsOf(Duration time) { return std::chrono::duration<double>(time).count(); }

double stormSeconds() {
  const char* const given = std::getenv("VANTOR_STORM_SECONDS");
  return given ? std::atof(given) : 20;
}

struct Figures {
  std::vector<double> list;
  std::vector<double> explain;
  std::vector<double> explainSwitch;
  std::vector<double> restart;
  std::vector<double> stop;
  double sigterm = 0;
  double earlyMemory = 0;
  double memory = 0;
  bool isComplete = false;
};

// `percent` of the times are at most this long.
double percentile(std::vector<double> times, int percent) {
  std::ranges::sort(times);
  return times[(times.size() - 1) * static_cast<std::size_t>(percent) / 100];
}

void measureRound(Storm& storm, int round, Figures& figures) {
  const std::string label = Storm::healthy(round);
  figures.list.push_back(secondsOf(storm.control({"list"}, label)));
  figures.explain.push_back(secondsOf(storm.control({"explain", label}, label)));
  figures.restart.push_back(secondsOf(storm.killUntilBack(label)));
  if (round % kRoundsForEachStop == 0) {
    figures.stop.push_back(secondsOf(storm.control({"stop", label}, label + " is stopped.\n")));
    storm.control({"start", label}, label);
    figures.explainSwitch.push_back(
        secondsOf(storm.control({"explain", Storm::kSwitched}, Storm::kSwitched)));
  }
}

Figures measure(Weather weather) {
  Storm storm(weather);
  Figures figures;
  const auto start = Clock::now();
  for (int round = 0; since(start) < stormSeconds() && !hasFailed(); ++round) {
    ::usleep(kPause);
    measureRound(storm, round, figures);
    if (figures.earlyMemory == 0 && since(start) > stormSeconds() / 3)
      figures.earlyMemory = static_cast<double>(storm.memory()) * 1024;
  }
  storm.expectNoneDoubled();
  figures.memory = static_cast<double>(storm.memory()) * 1024;
  figures.sigterm = secondsOf(storm.terminate());
  figures.isComplete = !hasFailed() && figures.earlyMemory > 0;
  return figures;
}

const Figures& inStorm() {
  static const Figures figures = measure(Weather::kStorm);
  return figures;
}

const Figures& onQuietMachine() {
  static const Figures figures = measure(Weather::kQuiet);
  return figures;
}

using Figure = std::function<double()>;

// All figures are of one storm, whichever benchmark runs first.
void addFigure(const std::string& name, const Figures& (*figures)(), const Figure& figure) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [figures, figure](benchmark::State& state) {
                                 for (auto _ : state) {
                                   if (figures && !figures().isComplete)
                                     return state.SkipWithError("the daemon failed");
                                   state.SetIterationTime(figure());
                                 }
                               })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(1);
}

void addGroup(const std::string& group, const Figure& subject, const Figures& (*baselineOf)(),
              const Figure& baseline) {
  addFigure(group + "/subject", &inStorm, subject);
  addFigure(group + "/baseline", baselineOf, baseline);
}

const bool kRegistered = [] {
  addGroup(
      "storm-list-p99", [] { return percentile(inStorm().list, 99); }, &onQuietMachine,
      [] { return percentile(onQuietMachine().list, 99) + kAllowedDelay; });
  addGroup(
      "storm-explain-p99", [] { return percentile(inStorm().explain, 99); }, &onQuietMachine,
      [] { return percentile(onQuietMachine().explain, 99) + kAllowedDelay; });
  addGroup(
      "storm-explain-switch", [] { return percentile(inStorm().explainSwitch, 50); },
      &onQuietMachine,
      [] { return percentile(onQuietMachine().explainSwitch, 50) + kAllowedDelay; });
  addGroup(
      "storm-restart", [] { return percentile(inStorm().restart, 50); }, &onQuietMachine,
      [] { return percentile(onQuietMachine().restart, 50); });
  addGroup(
      "storm-stop", [] { return percentile(inStorm().stop, 100); }, nullptr, [] { return 1.0; });
  addGroup("storm-sigterm", [] { return inStorm().sigterm; }, nullptr, [] { return 1.0; });
  addGroup(
      "storm-memory", [] { return inStorm().memory * 1e-9; }, &inStorm,
      [] { return inStorm().earlyMemory * 1e-9; });
  return true;
}();

}  // namespace
}  // namespace benchmarks
