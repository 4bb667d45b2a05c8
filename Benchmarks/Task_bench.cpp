// The cost of running a program, against a bare spawn that collects its output.

#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Logger/Logger.h"
#include "Platform/Linux/Processes/LinuxTasks.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Shared/Categories/NSTaskExtensions.h"

namespace {

using namespace platform;

const bool kGoals =
    benchmarks::atMost({"task", 1.2, "running a program of few words, against a bare spawn"}) &&
    benchmarks::atMost({"task-notices", 1.2, "the same by data-available notices"}) &&
    benchmarks::atMost({"task-flood", 1.2, "one that writes 16 MiB, against a bare spawn"});

const std::vector<std::string> kFewWords{"-c", "echo output; echo error >&2"};
const std::vector<std::string> kFlood{"-c", "head -c 16777216 /dev/zero"};

void runTask(benchmark::State& state, const std::vector<std::string>& arguments, bool handlers) {
  VirtualRunLoop loop;
  NotificationCenter center;
  LinuxTasks tasks(loop, center, {.callsReadabilityHandlers = handlers});
  FakeLogSink sink;
  SystemLog log(sink, "benchmark");
  const LoggerBinding binding(log);
  for (auto _ : state) {
    std::string output;
    std::string error;
    int status = -1;
    const auto task = tasks.newTask();
    if (!NSTaskExtensions::launchTask(*task, "/bin/sh", &arguments, &output, &error, &status)) {
      state.SkipWithError("not run");
    }
    sink.clear();
  }
}
BENCHMARK_CAPTURE(runTask, few, kFewWords, true)->Name("task/subject")->UseRealTime();
BENCHMARK_CAPTURE(runTask, notices, kFewWords, false)->Name("task-notices/subject")->UseRealTime();
BENCHMARK_CAPTURE(runTask, flood, kFlood, true)->Name("task-flood/subject")->UseRealTime();

// Keeps the last piece of each stream.
void spawnBare(benchmark::State& state, const std::vector<std::string>& arguments) {
  std::vector<std::string> texts{"/bin/sh"};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  std::vector<char> piece(64 * 1024);
  for (auto _ : state) {
    int output[2];
    int error[2];
    if (::pipe2(output, O_CLOEXEC) != 0 || ::pipe2(error, O_CLOEXEC) != 0) {
      state.SkipWithError("no pipe");
    }
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], 1);
    ::posix_spawn_file_actions_adddup2(&actions, error[1], 2);
    pid_t child = -1;
    ::posix_spawn(&child, "/bin/sh", &actions, nullptr, pointers.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(output[1]);
    ::close(error[1]);
    std::vector<pollfd> entries{{.fd = output[0], .events = POLLIN, .revents = 0},
                                {.fd = error[0], .events = POLLIN, .revents = 0}};
    for (int open = 2; open > 0;) {
      ::poll(entries.data(), entries.size(), -1);
      for (pollfd& entry : entries) {
        if (entry.revents == 0) continue;
        if (::read(entry.fd, piece.data(), piece.size()) > 0) continue;
        ::close(entry.fd);
        entry.fd = -1;
        --open;
      }
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    if (status != 0) state.SkipWithError("not run");
  }
}
BENCHMARK_CAPTURE(spawnBare, few, kFewWords)->Name("task/baseline")->UseRealTime();
BENCHMARK_CAPTURE(spawnBare, notices, kFewWords)->Name("task-notices/baseline")->UseRealTime();
BENCHMARK_CAPTURE(spawnBare, flood, kFlood)->Name("task-flood/baseline")->UseRealTime();

}  // namespace
