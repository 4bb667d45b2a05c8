// The time that the daemon adds to its own delay of settings changes.

#include <chrono>
#include <csignal>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/SettingsProgram.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace benchmarks {
namespace {

using namespace platform;
using Clock = std::chrono::steady_clock;

constexpr std::string_view kEvaluation = "Evaluating the system configuration\n";
// An evaluation says so of a switch that is not set, when the settings server has answered.
constexpr std::string_view kAnswered = "invalid configuration switch key \"on\"";
constexpr double kDelay = 2.0;  // seconds that the daemon waits for further changes

const bool kAdded =
    atMost({"setting-to-running", 20,
            "a switch that is turned on to a client told that the service runs, without the "
            "daemon's delay of 2.0 s / a bare fork and exec"});

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// One service, which runs while the setting "on" is 1.
Dictionary catalogueWithSwitch() {
  const std::string label = DaemonRoot::label(0);
  Dictionary catalogue = DaemonRoot::catalogue(1);
  Dictionary services = *catalogue["Services"].dictionary();
  Dictionary service = *services[label].dictionary();
  service.set("Features", Array{"feature"});
  services.set(label, std::move(service));
  catalogue.set("Services", std::move(services));
  const Dictionary configuration{{"Source", "common"}, {"Switches", Dictionary{{"on", 1}}}};
  catalogue.set("Features", Dictionary{{"feature", Dictionary{{"Config", Array{configuration}}}}});
  return catalogue;
}

void settingSubject(benchmark::State& state) {
  const std::string label = DaemonRoot::label(0);
  for (auto _ : state) {
    DaemonRoot root;
    root.setCatalogue(catalogueWithSwitch());
    root.startDaemon();
    root.awaitStart();
    root.awaitLog(kAnswered);
    UserInterfaceClient client(root);
    client.registerClient();
    SettingsProgram program(root);
    // A verdict is cached only if the program's file was older than two seconds when it was
    // checked, which it may not be at the start. Without this change the configuration server's
    // megabytes might be hashed again.
    program.set("other", 1);
    // The next change would otherwise join the evaluation of this one, or come before its question
    // to the settings server, and have no delay.
    root.await("the evaluation of the other setting", [&] {
      return root.logHasBehind("settings change: other\n", kEvaluation) &&
             root.logHasBehind(kEvaluation, kAnswered);
    });
    const bool isOff = program.client().objectForKey("on").isNil() && root.processOf(label) == 0;
    const auto start = Clock::now();
    program.set("on", 1);
    root.await("the service", [&] { return client.hasNotice(label, 1); });
    const double added = since(start) - kDelay;
    state.SetIterationTime(added);
    if (added < 0) return state.SkipWithError("another evaluation has started the service");
    if (!isOff || testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed())
      return state.SkipWithError("no service");
  }
}
BENCHMARK(settingSubject)->Name("setting-to-running/subject")->UseManualTime()->Iterations(1);

void forkAndExec(benchmark::State& state) {
  std::string name = "agent";
  char* const arguments[] = {name.data(), nullptr};
  const UniqueFd null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  for (auto _ : state) {
    int ends[2];  // The process holds the writing end until it executes its program.
    if (::pipe2(ends, O_CLOEXEC) != 0) return state.SkipWithError("pipe2");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const auto start = Clock::now();
    const pid_t process = ::fork();
    if (process == 0) {
      ::dup2(null.get(), STDOUT_FILENO);
      ::execv(JOB_PROGRAM, arguments);
      ::_exit(127);
    }
    writer.reset();
    char byte = 0;
    const bool isRunning = ::read(reader.get(), &byte, 1) == 0;
    state.SetIterationTime(since(start));
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
    if (!isRunning) return state.SkipWithError("read");
  }
}
BENCHMARK(forkAndExec)->Name("setting-to-running/baseline")->UseManualTime();

}  // namespace
}  // namespace benchmarks
