// A daemon that is killed at any moment: each service keeps its process, is watched again, and is
// not started twice.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/Tracing.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DaemonKill : public DaemonFixture {
 protected:
  static constexpr char kRun[] = "test: run ";
  static constexpr char kLastEvaluation[] = "Evaluating service: com.vantor.test.2\n";

  // The plan contains strace's options for each of the daemon's runs.
  void writePlan(const std::vector<std::string>& runs) {
    std::filesystem::remove_all(root_.folder().path("plan"));
    root_.folder().write("plan/next", "1\n");
    for (std::size_t i = 0; i < runs.size(); ++i) {
      root_.folder().write("plan/" + std::to_string(i + 1), runs[i] + "\n");
    }
    // Each start by the job host takes the next entry; after the last one the daemon runs without
    // strace.
    const std::string plan = root_.folder().path("plan");
    const std::string script = root_.folder().write(
        "daemon", "#!/bin/sh\nread -r n <" + plan + "/next\n" + "echo $((n + 1)) >" + plan +
                      "/next\n" + "echo \"" + kRun + "$n\" >>" + root_.folder().path("log") +
                      "/system.log\n" + "[ -e " + plan + "/$n ] || exec " + root_.daemonProgram() +
                      "\nread -r options <" + plan + "/$n\n" +
                      "exec /usr/bin/strace -f -qq $options " + root_.daemonProgram() + "\n");
    std::filesystem::permissions(script, std::filesystem::perms(0755));
  }

  // Starts the daemon at the beginning of the plan. If the plan does not kill a run, kills it once
  // it is idle. Returns the number of these runs.
  std::size_t runPlan(std::size_t runs) {
    const std::string server = pathOfConnection(root_.path(), UserInterfaceClient::kServer);
    const std::size_t runsBefore = root_.logCount(kRun);
    std::size_t unplannedKills = 0;
    root_.startDaemon(root_.folder().path("daemon"));
    std::size_t run = 0;
    for (;;) {
      // The daemon answers once all pending work is done.
      const std::size_t seen = run;
      const auto isDone = [&] { return run > 0 && root_.logHasBehind(kRun, kLastEvaluation); };
      root_.await("a daemon that has evaluated all services, or the next one", [&] {
        run = root_.logCount(kRun) - runsBefore;
        return run > seen || isDone();
      });
      if (!HasFailure() && !isDone()) continue;
      const bool answers = root_.transport().connect(server, {.timeout = 60s}).has_value();
      if (HasFailure()) return unplannedKills;
      if (!answers || root_.logCount(kRun) - runsBefore != run) continue;
      if (run > runs) return unplannedKills;
      const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
      if (daemon <= 0) continue;  // The plan has killed it after all.
      ++unplannedKills;
      ::kill(daemon, SIGKILL);
      root_.await("the next one", [&] { return root_.logCount(kRun) - runsBefore > run; });
    }
  }

  std::size_t startsOf(const std::string& label) {
    return root_.logCount("job \"" + label + "\": started process ");
  }
};

// One daemon for each system call would take many minutes, so ./test takes a sample. With this in
// the test program's environment it takes them all.
bool isForEveryCall() { return std::getenv("VANTOR_TEST_EVERY_CALL") != nullptr; }

// The system calls of the program's first thread in a trace, without those that load its libraries.
std::vector<TracedCall> callsOfTheStart(const std::string& traceFile) {
  std::vector<TracedCall> calls;
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
      continue;  // The rest of a call that another thread's call interrupted.
    }
    const int number = ++numbers[name];
    isOurs = isOurs || line.find("platform.plist") != line.npos;
    if (isOurs) calls.push_back({name, number});
  }
  if (isForEveryCall()) return calls;
  // The first and the last of many equal calls in a row, most of which read the files that are
  // verified.
  std::vector<TracedCall> kept;
  for (std::size_t i = 0; i < calls.size(); ++i) {
    const bool isWithin = i > 0 && i + 1 < calls.size() && calls[i - 1].name == calls[i].name &&
                          calls[i + 1].name == calls[i].name;
    if (!isWithin) kept.push_back(calls[i]);
  }
  return kept;
}

TEST_F(DaemonKill, TheNextDaemonWatchesTheRunningServices) {
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

TEST_F(DaemonKill, ServicesThatEndWithoutADaemonAreWatchedAgain) {
  start(3);
  const std::string label = DaemonRoot::label(1);
  const std::size_t evaluated = evaluations();
  const ProcessId service = root_.processOf(label);
  const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
  // The host must not restart either of them before the other has ended.
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

TEST_F(DaemonKill, AtSystemCallsAllOverItsStart) {
  if (!canTrace()) GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
  services_ = 3;
  root_.setCatalogue(DaemonRoot::catalogue(services_));
  const std::string trace = root_.folder().path("trace");
  writePlan({"-o " + trace});
  EXPECT_EQ(runPlan(1), 1U);
  const std::vector<TracedCall> calls = callsOfTheStart(trace);
  ASSERT_GT(calls.size(), 100U);
  // The daemon goes first, since it would start removed services again.
  root_.remove(DaemonRoot::kDaemon);
  for (const std::string& label : labels()) root_.remove(label);

  // Starts from nothing: the first daemons die before they have started anything, each gets further
  // than the one before, and the last ones find everything running.
  const std::size_t maxRuns = isForEveryCall() ? calls.size() : 48;
  const std::size_t stride = (calls.size() + maxRuns - 1) / maxRuns;
  std::vector<std::string> plan;
  for (std::size_t i = 0; i < calls.size(); i += stride) {
    const auto& [name, number] = calls[i];
    plan.push_back("-o /dev/null -e trace=" + name + " -e inject=" + name +
                   ":signal=SIGKILL:when=" + std::to_string(number));
  }
  writePlan(plan);
  std::map<std::string, std::size_t> startsBefore;
  for (const std::string& label : labels()) startsBefore[label] = startsOf(label);
  const std::size_t unplannedKills = runPlan(plan.size());
  for (const std::string& label : labels()) {
    EXPECT_EQ(startsOf(label) - startsBefore[label], 1U) << label;
  }
  expectNoneLostNoneDoubled(pids());
  // With running services there are fewer calls than in the trace, which began from nothing.
  EXPECT_GT(2 * (plan.size() - unplannedKills), plan.size());
  std::cout << "killed at " << plan.size() - unplannedKills << " of " << calls.size()
            << " system calls\n";

  client_ = std::make_unique<UserInterfaceClient>(root_);
  client_->registerClient();
  for (const std::string& label : labels()) expectKilledServiceIsReported(label);
}

}  // namespace
}  // namespace platform
