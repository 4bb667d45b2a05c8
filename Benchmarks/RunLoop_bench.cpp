// The cost of a virtual timer: tests that cover a day of virtual time must take almost none.

#include <cstdint>
#include <functional>
#include <memory>
#include <queue>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "Benchmarks/Goal.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace benchmarks {
namespace {

using platform::Duration;
using platform::Instant;

constexpr std::size_t kTimers = 1000;
constexpr std::int64_t kBatch = 1000;

const bool kAdded = atMost({"virtual-timers", 3,
                            "one timer scheduled and fired on the virtual loop, with handle and "
                            "callback / push and pop on a std::priority_queue, 1,000 pending"});

// Up to 900 seconds, like the daemon's timers.
std::vector<Duration> delays() {
  std::mt19937_64 random(7);  // The same on both sides and on every run.
  std::vector<Duration> delays(4096);
  for (Duration& delay : delays) delay = Duration(random() % 900'000'000'000);
  return delays;
}

void subject(benchmark::State& state) {
  const std::vector<Duration> delay = delays();
  platform::VirtualRunLoop loop;
  std::vector<std::unique_ptr<platform::RunLoopHandle>> timers(kTimers);
  std::size_t fired = 0;
  std::function<void(std::size_t)> schedule = [&](std::size_t index) {
    timers[index] = loop.startTimer(delay[++fired % delay.size()], platform::RunLoop::Repeat::kOnce,
                                    [&, index] {
                                      schedule(index);
                                      if (fired % kBatch == 0) loop.stop();
                                    });
  };
  for (std::size_t i = 0; i < kTimers; ++i) schedule(i);
  while (state.KeepRunningBatch(kBatch)) loop.run();
}
BENCHMARK(subject)->Name("virtual-timers/subject");

void baseline(benchmark::State& state) {
  struct Entry {
    Instant due;
    std::uint64_t order;
    std::size_t index;
    bool operator<(const Entry& other) const {
      return std::pair(other.due, other.order) < std::pair(due, order);
    }
  };
  const std::vector<Duration> delay = delays();
  std::priority_queue<Entry> queue;
  Instant now{};
  std::size_t fired = 0;
  const auto schedule = [&](std::size_t index) {
    ++fired;
    queue.push({now + delay[fired % delay.size()], fired, index});
  };
  for (std::size_t i = 0; i < kTimers; ++i) schedule(i);
  while (state.KeepRunningBatch(kBatch)) {
    for (std::int64_t i = 0; i < kBatch; ++i) {
      const Entry entry = queue.top();
      queue.pop();
      now = entry.due;
      schedule(entry.index);
    }
  }
}
BENCHMARK(baseline)->Name("virtual-timers/baseline");

}  // namespace
}  // namespace benchmarks
