// The time of the operator's command from its start to its end.

#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Tests/EndToEnd/DaemonRoot.h"

namespace benchmarks {
namespace {

using platform::DaemonRoot;

const bool kAdded = atMost(
    {"jobs-show", 2.5,
     "`servicemanagerctl jobs show LABEL` / a program that asks the same with bare system calls"});

// Whether the program succeeds. Nobody reads its output.
bool runsWell(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions{};
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t process = 0;
  const int spawned =
      ::posix_spawn(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return spawned == 0 && ::waitpid(process, &status, 0) == process && status == 0;
}

void runEach(benchmark::State& state, const std::vector<std::string>& words) {
  for (auto _ : state) {
    if (!runsWell(words)) return state.SkipWithError("it failed");
  }
}

// The job of the bus is there from the beginning.
void subject(benchmark::State& state) {
  DaemonRoot root;
  runEach(state, {root.host().controlProgram(), "jobs", "show", DaemonRoot::kBus});
}
BENCHMARK(subject)->Name("jobs-show/subject")->UseRealTime();

void baseline(benchmark::State& state) {
  DaemonRoot root;
  runEach(state, {RAW_JOB_CLIENT, platform::jobHostSocket(root.path()), DaemonRoot::kBus});
}
BENCHMARK(baseline)->Name("jobs-show/baseline")->UseRealTime();

}  // namespace
}  // namespace benchmarks
