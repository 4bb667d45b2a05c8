// Root's questions to a daemon that other users flood, against the same daemon on a quiet machine:
// VANTOR_FLOOD_SECONDS (5 by default) for each way of flooding, by 17 users. Only as root.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RealDaemon.h"
#include "Tests/EndToEnd/ChildProgram.h"

namespace benchmarks {
namespace {

using namespace platform;

constexpr double kAllowedDelay = 0.1;  // seconds that root may wait longer
constexpr int kPercent = 99;
constexpr std::array kWays{"connections", "unfinished", "oneway",
                           "questions",   "refused",    "descriptors"};

const bool kAdded[] = {
    atMost({"flood-list-p99", 1,
            "an answer to root in the worst flood, the 99th percentile / on a quiet machine, + "
            "100 ms"}),
};

double floodSeconds() {
  const char* const given = std::getenv("VANTOR_FLOOD_SECONDS");
  return given ? std::atof(given) : 5;
}

struct Figures {
  double quiet = 0;
  double flood = 0;  // the worst
};

// The percentile of the times that root's questions take, each over a connection of its own.
double percentileOfAnswers(RealDaemon& daemon) {
  std::vector<double> times;
  const auto begun = Clock::now();
  while (since(begun) < floodSeconds()) {
    const auto asked = Clock::now();
    UserInterfaceClient asking(daemon.root(), UserInterfaceClient::kOperatorServer);
    if (!asking.ask("overview")) return floodSeconds();
    times.push_back(since(asked));
  }
  std::ranges::sort(times);
  return times[(times.size() - 1) * kPercent / 100];
}

std::optional<Figures> measure() {
  RealDaemon daemon(2);
  if (!daemon.isReady()) return std::nullopt;
  std::filesystem::permissions(daemon.root().path(), std::filesystem::perms(0755));
  Figures figures{.quiet = percentileOfAnswers(daemon)};
  for (const char* const way : kWays) {
    ChildProgram attackers({FLOOD_PROGRAM, daemon.root().path(), way, "300001", "17", "65534"}, {});
    if (attackers.nextLine() != "flooding") return std::nullopt;
    const double time = percentileOfAnswers(daemon);
    figures.flood = std::max(figures.flood, time);
  }
  if (hasFailed()) return std::nullopt;
  return figures;
}

const std::optional<Figures>& figures() {
  static const std::optional<Figures> figures = measure();
  return figures;
}

void addFigure(const char* name, double (*figure)(const Figures&)) {
  benchmark::RegisterBenchmark(name,
                               [figure](benchmark::State& state) {
                                 for (auto _ : state) {
                                   if (::geteuid() != 0)
                                     return state.SkipWithError("only root can flood it");
                                   if (!figures()) return state.SkipWithError("the daemon failed");
                                   state.SetIterationTime(figure(*figures()));
                                 }
                               })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(1);
}

const bool kRegistered = [] {
  addFigure("flood-list-p99/subject", [](const Figures& measured) { return measured.flood; });
  addFigure("flood-list-p99/baseline",
            [](const Figures& measured) { return measured.quiet + kAllowedDelay; });
  return true;
}();

}  // namespace
}  // namespace benchmarks
