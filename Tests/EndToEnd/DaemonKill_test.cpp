// A daemon that is killed at any moment: no service loses its process, each is watched again, and
// none is started twice.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "Platform/Linux/ConnectionsFolder.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DaemonKill : public DaemonFixture {
 protected:
  static constexpr char kRun[] = "test: run ";

  // What is to be done to the daemon in each of its runs: strace's options.
  void writePlan(const std::vector<std::string>& runs) {
    std::filesystem::remove_all(root_.folder().path("plan"));
    root_.folder().write("plan/next", "1\n");
    for (std::size_t i = 0; i < runs.size(); ++i) {
      root_.folder().write("plan/" + std::to_string(i + 1), runs[i] + "\n");
    }
    // Each start by the job host takes the next; behind the last the daemon runs as ever.
    const std::string plan = root_.folder().path("plan");
    const std::string script = root_.folder().write(
        "daemon", "#!/bin/sh\nread -r n <" + plan + "/next\n" + "echo $((n + 1)) >" + plan +
                      "/next\n" + "echo \"" + kRun + "$n\" >>" + root_.folder().path("log") +
                      "/system.log\n" + "[ -e " + plan + "/$n ] || exec " + root_.daemonProgram() +
                      "\nread -r options <" + plan + "/$n\n" +
                      "exec /usr/bin/strace -f -qq $options " + root_.daemonProgram() + "\n");
    std::filesystem::permissions(script, std::filesystem::perms(0755));
  }

  // Starts the daemon at the beginning of the plan, and ends each run that its plan does not end
  // once it has nothing more to do. Returns how many that were.
  std::size_t runPlan(std::size_t runs) {
    const std::string server = pathOfConnection(root_.path(), UserInterfaceClient::kServer);
    const std::size_t runsBefore = root_.logCount(kRun);
    std::size_t survivors = 0;
    root_.startDaemon(root_.folder().path("daemon"));
    for (;;) {
      std::size_t run = 0;
      std::size_t before = evaluations();
      root_.await("a daemon that has evaluated all services, or the end of the plan", [&] {
        run = root_.logCount(kRun) - runsBefore;
        return run > runs || evaluations() > before;
      });
      // One that answers has done all that it was about to do.
      const bool answers = root_.transport().connect(server, {.timeout = 60s}).has_value();
      if (HasFailure() || run > runs) return survivors;
      if (!answers || root_.logCount(kRun) - runsBefore != run) continue;
      ++survivors;
      ::kill(root_.processOf(DaemonRoot::kDaemon), SIGKILL);
    }
  }

  std::size_t startsOf(const std::string& label) {
    return root_.logCount("job \"" + label + "\": started process ");
  }
};

// Whether this machine lets a program be traced.
bool canTrace() {
  ChildProgram strace({"/usr/bin/strace", "-o", "/dev/null", "/bin/true"}, {});
  return strace.waitForExit() == ExitStatus{};
}

// One system call of a program: the how many-th of its name it is.
struct Call {
  std::string name;
  int number = 0;
};

// The calls of the program's first thread in a trace, from where it begins to be ours: before that
// there is only the loading of its libraries.
std::vector<Call> callsIn(const std::string& traceFile) {
  std::vector<Call> calls;
  std::map<std::string, int> numbers;
  std::string who;
  bool isOurs = false;
  std::ifstream file(traceFile);
  for (std::string line; std::getline(file, line);) {
    if (who.empty()) who = line.substr(0, line.find(' ') + 1);
    if (!line.starts_with(who)) continue;
    line.erase(0, line.find_first_not_of(' ', who.size()));
    const std::string name = line.substr(0, line.find('('));
    if (name.empty() ||
        name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789") != name.npos) {
      continue;  // The rest of a call that another thread's fell into.
    }
    const int number = ++numbers[name];
    isOurs = isOurs || line.find("platform.plist") != line.npos;
    if (isOurs) calls.push_back({name, number});
  }
  return calls;
}

TEST_F(DaemonKill, ItsServicesGoOnAndAreWatchedByTheNextOne) {
  start(5);
  const auto before = pids();
  for (int i = 0; i < 3; ++i) {
    const std::size_t evaluated = evaluations();
    root_.killDaemon();
    root_.awaitStart();
    awaitEvaluation(evaluated);
    expectNoneLostNoneDoubled(before);
  }
  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  for (const auto& [label, process] : before) expectKilledServiceIsReported(label);
}

TEST_F(DaemonKill, ServicesThatEndWhileThereIsNoDaemonAreWatchedAgain) {
  start(3);
  const std::string label = DaemonRoot::label(1);
  const std::size_t evaluated = evaluations();
  const ProcessId service = root_.processOf(label);
  const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
  // Neither of them can be started again before the other has ended.
  root_.host().stopHost();
  killAndAwait(daemon);
  killAndAwait(service);
  root_.expectStart();
  root_.host().continueHost();
  root_.awaitStart();
  awaitEvaluation(evaluated);
  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  for (const std::string& each : labels()) expectKilledServiceIsReported(each);
}

TEST_F(DaemonKill, AtEverySystemCallOfItsStart) {
  if (!canTrace()) GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
  services_ = 3;
  root_.setCatalogue(DaemonRoot::catalogue(services_));
  const std::string trace = root_.folder().path("trace");
  writePlan({"-o " + trace});
  EXPECT_EQ(runPlan(1), 1U);
  const std::vector<Call> calls = callsIn(trace);
  ASSERT_GT(calls.size(), 100U);
  for (const std::string& label : labels()) root_.remove(label);
  root_.remove(DaemonRoot::kDaemon);

  // From nothing: the first daemons die before they have started anything, each gets one call
  // further, and the last ones find everything running.
  // There are some 1,400 calls, which would take minutes; these are evenly spread over them.
  constexpr std::size_t kMaxRuns = 64;
  const std::size_t stride = (calls.size() + kMaxRuns - 1) / kMaxRuns;
  std::vector<std::string> plan;
  for (std::size_t i = 0; i < calls.size(); i += stride) {
    const auto& [name, number] = calls[i];
    plan.push_back("--seccomp-bpf -o /dev/null -e trace=" + name + " -e inject=" + name +
                   ":signal=SIGKILL:when=" + std::to_string(number));
  }
  writePlan(plan);
  std::map<std::string, std::size_t> startsBefore;
  for (const std::string& label : labels()) startsBefore[label] = startsOf(label);
  const std::size_t survivors = runPlan(plan.size());
  for (const std::string& label : labels()) {
    EXPECT_EQ(startsOf(label) - startsBefore[label], 1U) << label;
  }
  expectNoneLostNoneDoubled(pids());
  EXPECT_GT(plan.size() - survivors, plan.size() * 3 / 4);
  RecordProperty("calls", static_cast<int>(calls.size()));
  RecordProperty("kills", static_cast<int>(plan.size() - survivors));

  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  for (const std::string& label : labels()) expectKilledServiceIsReported(label);
}

}  // namespace
}  // namespace platform
