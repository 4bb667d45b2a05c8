// Runs every benchmark, the subject and the baseline of each group interleaved, and prints one line
// for each group. It passes no judgement: an absolute time on a shared machine means little, and a
// person has to read the ratio.

#include <algorithm>
#include <map>
#include <optional>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/core.h>

#include "Benchmarks/Goal.h"

namespace benchmarks {
namespace {

std::vector<Goal>& goals() {
  static std::vector<Goal> goals;
  return goals;
}

// Keeps the time per iteration of every repetition; the median is reported.
class Collector final : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      if (run.error_occurred) {
        errors_[run.run_name.function_name] = run.error_message;
        continue;
      }
      const double perIteration =
          run.real_accumulated_time / static_cast<double>(std::max<int64_t>(run.iterations, 1));
      seconds_[run.run_name.function_name].push_back(perIteration);
    }
    fmt::print(stderr, ".");
  }

  void Finalize() override {
    fmt::print(stderr, "\n");
    fmt::print("{:<28} {:>12} {:>12} {:>8} {:>8}  {}\n", "what", "ours (ns)", "baseline", "ratio",
               "goal", "meaning");
    for (const Goal& goal : goals()) print(goal);
  }

 private:
  void print(const Goal& goal) {
    const auto subject = typical(goal.group + "/subject");
    const auto baseline = typical(goal.group + "/baseline");
    if (!subject && !baseline && !benchmark::GetBenchmarkFilter().empty() && errors_.empty())
      return;
    if (!subject || !baseline) {
      const std::string& why = errors_.empty() ? "not run" : errors_.begin()->second;
      fmt::print("{:<28} not measured: {}\n", goal.group, why);
      return;
    }
    fmt::print("{:<28} {:>12.1f} {:>12.1f} {:>8.2f} {:>8} {}{}\n", goal.group, *subject * 1e9,
               *baseline * 1e9, *subject / *baseline, fmt::format("<= {:g}", goal.ratio),
               *subject / *baseline > goal.ratio ? "! " : "  ", goal.meaning);
  }

  std::optional<double> typical(const std::string& name) {
    auto found = seconds_.find(name);
    if (found == seconds_.end()) return std::nullopt;
    std::vector<double>& times = found->second;
    std::ranges::sort(times);
    return times[times.size() / 2];
  }

  std::map<std::string, std::vector<double>> seconds_;
  std::map<std::string, std::string> errors_;
};

}  // namespace

bool atMost(Goal goal) {
  goals().push_back(std::move(goal));
  return true;
}

}  // namespace benchmarks

int main(int argc, char** argv) {
  std::vector<char*> arguments(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char repetitions[] = "--benchmark_repetitions=9";
  char minimum[] = "--benchmark_min_time=0.05";
  for (char* added : {interleave, repetitions, minimum}) {
    // Before the user's arguments, which take precedence.
    arguments.insert(arguments.begin() + 1, added);
  }
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  benchmarks::Collector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  return 0;
}
