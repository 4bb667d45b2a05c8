// The units that the job host makes of jobs, and what becomes of them when systemd, an
// administrator or the bus does something. Tests/boot-systemd boots a systemd for this program.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Linux/Systemd/SystemdManager.h"
#include "Tests/EndToEnd/RealJobsMachine_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class SystemdUnits : public testing::Test {
 protected:
  static constexpr char kLabel[] = "com.example.my-agent";
  SystemdUnits() {
    // Every user executes the starter, which lies in the root.
    std::filesystem::permissions(root_.folder().path(), std::filesystem::perms(0755));
    std::filesystem::remove(output_);
  }
  ~SystemdUnits() override { std::filesystem::remove(output_); }

  static constexpr char kUnit[] = "vantor-com.example.my\\x2dagent.service";

  Dictionary jobOf(const std::string& program, Dictionary more = {}) {
    Dictionary dictionary{
        {"Label", kLabel}, {"Program", program}, {"KeepAlive", true}, {"ThrottleInterval", 0}};
    for (const auto& [key, value] : more) dictionary.set(key, value);
    return dictionary;
  }

  std::expected<void, NSError> submit(Dictionary job) {
    return client_.jobs().SMJobSubmit(kSMDomainSystemLaunchd, job, nullptr);
  }
  void expectSubmitted(Dictionary job) {
    const auto submitted = submit(std::move(job));
    EXPECT_TRUE(submitted) << submitted.error().localizedDescription;
  }
  // A shell script that runs once and writes to `output_`. Returns what it has written when it has
  // ended.
  std::string outputOf(const std::string& script, Dictionary more = {}) {
    more.set("ProgramArguments", Array{"/bin/sh", "-c", script});
    more.set("StandardOutPath", output_);
    more.set("StandardErrorPath", output_);
    more.set("KeepAlive", false);
    more.set("RunAtLoad", true);
    Dictionary job = jobOf("/bin/sh", std::move(more));
    expectSubmitted(std::move(job));
    awaitThat([&] { return !copy()[kJobLastStatusKey].isNil(); });
    std::ifstream file(output_);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Shell code. The first lets a process write its number.
  static constexpr char kIgnoreTermination[] = "trap \"\" TERM; echo $$; ";
  static constexpr char kStopItself[] = "kill -STOP $$; ";
  // It starts a process that is forked twice, has a session of its own and not the job's mark.
  static std::string runaway(const std::string& then) {
    return std::string("(setsid /usr/bin/env -i /bin/sh -c '") + kIgnoreTermination + then +
           "exec /bin/sleep 1000' &); ";
  }
  std::vector<ProcessId> writtenProcesses() const {
    std::ifstream file(output_);
    return {std::istream_iterator<ProcessId>(file), {}};
  }
  static bool isStopped(ProcessId process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(file, line);) {
      if (line.starts_with("State:\tT")) return true;
    }
    return false;
  }

  Value copy() { return client_.jobs().SMJobCopyDictionary(kSMDomainSystemLaunchd, kLabel); }
  ProcessId process() {
    return static_cast<ProcessId>(copy()[kJobProcessKey].integer().value_or(0));
  }
  void awaitThat(const std::function<bool()>& holds) { client_.runUntil(holds); }

  // Runs a command of the system; fails unless that succeeds.
  static std::string system(std::vector<std::string> command) {
    ChildProgram program(std::move(command), {"PATH=/usr/bin:/bin"});
    const ExitStatus status = program.waitForExit();
    std::string output = program.restOfOutput();
    EXPECT_EQ(status, (ExitStatus{ExitStatus::Kind::kExited, 0})) << output << program.errors();
    return output;
  }
  static std::string propertyOf(const std::string& unit, const std::string& name) {
    std::string text = system({"/usr/bin/systemctl", "show", "--value", "-p", name, unit});
    return text.substr(0, text.find('\n'));
  }
  // Replaces the starter by a shell script, in which $0.real is the starter.
  void replaceStarter(const std::string& script) {
    const std::string starter = root_.folder().path("jobstart");
    std::filesystem::rename(starter, starter + ".real");
    std::ofstream(starter) << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(starter, std::filesystem::perms(0755));
  }
  static ProcessId processOfBus() { return std::stoi(propertyOf("dbus.service", "MainPID")); }

  JobHostRoot root_{"<key>JobBackend</key><string>systemd</string>"};
  RealClient client_{root_};
  std::unique_ptr<AsioRunLoop> clock_ = std::move(*AsioRunLoop::create());
  const std::string output_ = "/tmp/output-of-job";
};

TEST_F(SystemdUnits, AJobIsATransientUnitInItsSlice) {
  expectSubmitted(jobOf(root_.program(), {{"ExitTimeOut", 7}}));
  EXPECT_EQ(propertyOf(kUnit, "MainPID"), std::to_string(process()));
  EXPECT_EQ(propertyOf(kUnit, "Transient"), "yes");
  EXPECT_THAT(propertyOf(kUnit, "Slice"), StartsWith("vantor-"));
  EXPECT_EQ(propertyOf(kUnit, "Description"), kLabel);
  EXPECT_EQ(propertyOf(kUnit, "TimeoutStopUSec"), "7s");
  EXPECT_GT(copy()[kJobTreeKey][kJobTreeProcessesKey].integer().value_or(0), 0);
  EXPECT_TRUE(client_.jobs().SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, true));
  awaitThat([] { return propertyOf(kUnit, "LoadState") == "not-found"; });
}

TEST_F(SystemdUnits, KeysReachTheProcess) {
  const std::string script =
      "id -un; id -gn; pwd; umask; ulimit -n; echo $ONE; nice; tr '\\0' '\\n' </proc/$$/environ | "
      "grep my.name";
  EXPECT_EQ(
      outputOf(script, {{"UserName", "nobody"},
                        {"GroupName", "daemon"},
                        {"WorkingDirectory", "/usr"},
                        {"Umask", "027"},
                        {"SoftResourceLimits", Dictionary{{"NumberOfFiles", 77}}},
                        {"EnvironmentVariables", Dictionary{{"ONE", "1 %h"}, {"my.name", "x"}}},
                        {"Nice", 4}}),
      "nobody\ndaemon\n/usr\n0027\n77\n1 %h\n4\nmy.name=x\n");
}

TEST_F(SystemdUnits, TheStarterChangesRootAndGroups) {
  const std::string output =
      outputOf("id -G; grep -E 'Cap(Inh|Prm|Eff|Amb)' /proc/self/status; pwd",
               {{"UserName", "nobody"},
                {"InitGroups", false},
                {"RootDirectory", "/"},
                {"WorkingDirectory", "/usr"}});
  EXPECT_THAT(output, StartsWith(system({"/usr/bin/id", "-g", "nobody"})));
  EXPECT_THAT(output, HasSubstr("CapAmb:\t0000000000000000"));
  EXPECT_THAT(output, HasSubstr("CapPrm:\t0000000000000000"));
  EXPECT_THAT(output, testing::EndsWith("/usr\n"));
}

TEST_F(SystemdUnits, AnExitStatusIsKnown) {
  outputOf("exit 3");
  EXPECT_EQ(copy()[kJobLastStatusKey].integer(), 3 << 8);
  expectSubmitted(jobOf("/bin/sh", {{"ProgramArguments", Array{"sh", "-c", "kill -SEGV $$"}},
                                    {"KeepAlive", false},
                                    {"RunAtLoad", true}}));
  awaitThat([&] { return (copy()[kJobLastStatusKey].integer().value_or(0) & 0x7f) == SIGSEGV; });
}

// systemd would send them to the bus for as long as the host is subscribed.
TEST_F(SystemdUnits, AStartCausesNoSignalsOfUnits) {
  constexpr char kFence[] = "com.example.Fence";
  ChildProgram monitor({"/usr/bin/dbus-monitor", "--system",
                        "type='signal',path_namespace='/org/freedesktop/systemd1/unit'"},
                       {});
  while (monitor.nextLine().find("NameLost") == std::string::npos) {
  }
  expectSubmitted(jobOf(root_.program()));
  system({"/usr/bin/dbus-send", "--system", "--type=signal", "/org/freedesktop/systemd1/unit/fence",
          std::string(kFence) + ".Passed"});
  std::vector<std::string> signals;
  while (signals.empty() || signals.back().find(kFence) == std::string::npos)
    signals.push_back(monitor.nextLine());
  EXPECT_THAT(signals, Not(Contains(HasSubstr("PropertiesChanged"))));
}

TEST_F(SystemdUnits, ADropInOfTheAdministratorApplies) {
  const std::string folder = std::string("/run/systemd/system/") + kUnit + ".d";
  std::filesystem::create_directories(folder);
  std::ofstream(folder + "/limit.conf") << "[Service]\nLimitNOFILE=55\nMemoryMax=64M\n";
  EXPECT_EQ(outputOf("ulimit -n"), "55\n");
  std::filesystem::remove_all(folder);
}

TEST_F(SystemdUnits, AClientStartsAJobAndItsSocketIsPassed) {
  outputOf("echo $LISTEN_FDS $LISTEN_FDNAMES; test $LISTEN_PID = $$ && readlink /proc/$$/fd/3",
           {{"MachServices", Dictionary{{"com.example.service", true}}}});
  std::ifstream file(output_);
  const std::string output{std::istreambuf_iterator<char>(file), {}};
  EXPECT_THAT(output, StartsWith("1 com.example.service\nsocket:["));
}

TEST_F(SystemdUnits, AUnitOfAnotherOwnerIsLeftAlone) {
  const std::string unit = "vantor-com.example.foreign.service";
  const std::string file = "/run/systemd/system/" + unit;
  std::ofstream(file) << "[Service]\nExecStart=/bin/sleep 1000\n";
  system({"/usr/bin/systemctl", "daemon-reload"});
  system({"/usr/bin/systemctl", "start", unit});
  const std::string other = propertyOf(unit, "MainPID");
  Dictionary job = jobOf(root_.program());
  job.set("Label", "com.example.foreign");
  const auto submitted = submit(job);
  EXPECT_FALSE(submitted);
  if (!submitted) {
    EXPECT_THAT(submitted.error().localizedDescription, HasSubstr("is no job"));
  }
  EXPECT_EQ(propertyOf(unit, "MainPID"), other);
  system({"/usr/bin/systemctl", "stop", unit});
  std::filesystem::remove(file);
  system({"/usr/bin/systemctl", "daemon-reload"});
  expectSubmitted(job);
}

TEST_F(SystemdUnits, ProcessesOutliveAReloadAndANewSystemd) {
  for (const char* command : {"daemon-reload", "daemon-reexec"}) {
    expectSubmitted(jobOf(root_.program()));
    const ProcessId before = process();
    system({"/usr/bin/systemctl", command});
    EXPECT_EQ(process(), before) << command;
    killAndAwait(before);
    awaitThat([&] { return process() != 0 && process() != before; });
    EXPECT_EQ(copy()[kJobLastStatusKey].integer(), SIGKILL) << command;
  }
}

TEST_F(SystemdUnits, AJobThatTheAdministratorStopsIsStartedAgain) {
  for (const char* command : {"stop", "restart"}) {
    expectSubmitted(jobOf(root_.program()));
    const ProcessId before = process();
    // The host ends what a restart has begun.
    ChildProgram control({"/usr/bin/systemctl", command, kUnit}, {});
    control.waitForExit();
    awaitThat([&] { return process() != 0 && process() != before; });
    EXPECT_EQ(propertyOf(kUnit, "MainPID"), std::to_string(process())) << command;
  }
}

TEST_F(SystemdUnits, ASilentSystemdCostsOneTimeOut) {
  expectSubmitted(jobOf(root_.program()));
  const ProcessId before = process();
  const ProcessId bus = processOfBus();
  ::kill(bus, SIGSTOP);
  Dictionary other = jobOf(root_.program());
  other.set("Label", "com.example.other");
  EXPECT_FALSE(submit(other));
  EXPECT_EQ(process(), before);
  const Instant begin = clock_->now();
  EXPECT_FALSE(submit(other));
  EXPECT_LT(clock_->now() - begin, SystemdManager::kTimeOut);
  // A process is removed without systemd, and nobody can know how it ended.
  EXPECT_TRUE(client_.jobs().SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, true));
  EXPECT_FALSE(isRunning(before));
  ::kill(bus, SIGCONT);
  awaitThat([&] { return submit(other).has_value(); });
}

TEST_F(SystemdUnits, AJobGoesOnWithoutTheBus) {
  expectSubmitted(jobOf(root_.program()));
  const ProcessId before = process();
  ::kill(processOfBus(), SIGKILL);
  EXPECT_EQ(process(), before);
  killAndAwait(before);
  awaitThat([&] { return process() != 0 && process() != before; });
}

TEST_F(SystemdUnits, AStarterThatWasStoppedIsContinued) {
  replaceStarter("kill -STOP $$; exec \"$0.real\"");
  expectSubmitted(jobOf(root_.program()));
  EXPECT_NE(process(), 0);
}

TEST_F(SystemdUnits, TheEndOfAStarterIsNoticed) {
  replaceStarter("exit 1");
  const auto submitted = submit(jobOf(root_.program()));
  ASSERT_FALSE(submitted);
  EXPECT_THAT(submitted.error().localizedDescription, HasSubstr("(status 1)"));
}

TEST_F(SystemdUnits, ARemovalLeavesAbandonedProcessesAlone) {
  const ProcessId left =
      std::stoi(outputOf("sleep 1000 & echo $!", {{"AbandonProcessGroup", true}}));
  EXPECT_TRUE(client_.jobs().SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, true));
  EXPECT_TRUE(isRunning(left));
  root_.killHost();
  root_.startHost();
  EXPECT_TRUE(copy().isNil());
  EXPECT_TRUE(isRunning(left));
  ::kill(left, SIGKILL);
}

TEST_F(SystemdUnits, AUnitOfTheAdministratorInTheSliceIsLeftAlone) {
  expectSubmitted(jobOf(root_.program()));
  const std::string slice = propertyOf(kUnit, "Slice");
  const std::string unit = "vantor-com.example.own.service";
  const std::string file = "/run/systemd/system/" + unit;
  std::ofstream(file) << "[Service]\nExecStart=/bin/sleep 1000\nSlice=" << slice << "\n";
  system({"/usr/bin/systemctl", "daemon-reload"});
  system({"/usr/bin/systemctl", "start", unit});
  const std::string before = propertyOf(unit, "MainPID");
  root_.killHost();
  root_.startHost();
  awaitThat([&] { return process() != 0; });
  EXPECT_EQ(propertyOf(unit, "MainPID"), before);
  system({"/usr/bin/systemctl", "stop", unit});
  std::filesystem::remove(file);
  system({"/usr/bin/systemctl", "daemon-reload"});
}

TEST_F(SystemdUnits, ARemovalEndsTheWholeTree) {
  expectSubmitted(jobOf("/bin/sh", {{"ProgramArguments",
                                     Array{"/bin/sh", "-c",
                                           runaway("") + runaway(kStopItself) + kIgnoreTermination +
                                               kStopItself + "exec /bin/sleep 1000"}},
                                    {"ExitTimeOut", 1},
                                    {"StandardOutPath", output_}}));
  awaitThat([&] { return writtenProcesses().size() == 3; });
  const std::vector<ProcessId> tree = writtenProcesses();
  awaitThat([&] { return std::ranges::count_if(tree, &isStopped) == 2; });
  const Instant before = clock_->now();
  EXPECT_TRUE(client_.jobs().SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, true));
  awaitThat([&] { return std::ranges::none_of(tree, &isRunning); });
  const Duration taken = clock_->now() - before;
  RecordProperty("milliseconds", static_cast<int>(taken / 1ms));
  EXPECT_LT(taken, 20s);  // the default time-out
}

TEST_F(SystemdUnits, TheEndOfALeaderEndsItsTree) {
  const std::string ready = output_ + ".ready";
  outputOf("mkfifo " + ready + "; " + runaway("echo >" + ready + "; ") + "read line <" + ready +
           "; rm " + ready);
  const std::vector<ProcessId> tree = writtenProcesses();
  ASSERT_EQ(tree.size(), 1u);
  awaitThat([&] { return !isRunning(tree[0]); });
}

TEST_F(SystemdUnits, RemainingProcessesAreKilledOrAbandoned) {
  const std::string script = "sleep 1000 & echo $!";
  const ProcessId killed = std::stoi(outputOf(script));
  awaitThat([&] { return !isRunning(killed); });
  EXPECT_TRUE(client_.jobs().SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, true));
  std::filesystem::remove(output_);
  const ProcessId left = std::stoi(outputOf(script, {{"AbandonProcessGroup", true}}));
  EXPECT_TRUE(isRunning(left));
  // The unit is free for the next process.
  expectSubmitted(jobOf(root_.program()));
  awaitThat([&] { return process() != 0; });
  EXPECT_TRUE(isRunning(left));
  EXPECT_TRUE(client_.jobs().SMJobRemove(kSMDomainSystemLaunchd, kLabel, nullptr, true));
  root_.killHost();
  root_.startHost();
  EXPECT_TRUE(copy().isNil());
  EXPECT_TRUE(isRunning(left));
  ::kill(left, SIGKILL);
}

}  // namespace
}  // namespace platform
