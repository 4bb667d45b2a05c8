#include "Platform/Linux/Processes/LinuxTasks.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Processes/Task_contract.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Machine/TestStream.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

template <bool CallsHandlers>
class RealPrograms final : public TaskHarness {
 public:
  Tasks& tasks() override { return tasks_; }
  NotificationCenter& center() override { return center_; }
  bool callsHandlers() override { return CallsHandlers; }
  std::string program(const std::string& output, const std::string& error, int status) override {
    const std::string out = folder_.write("output", output);
    const std::string err = folder_.write("error", error);
    return script("cat " + out + "; cat " + err + " >&2; exit " + std::to_string(status));
  }
  std::string programEndedBy(int signal) override {
    return script("kill -" + std::to_string(signal) + " $$");
  }

 private:
  std::string script(const std::string& text) {
    const std::string path =
        folder_.write("program" + std::to_string(++scripts_), "#!/bin/sh\n" + text + "\n");
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
    return path;
  }

  TemporaryFolder folder_;
  int scripts_ = 0;
  VirtualRunLoop loop_;
  NotificationCenter center_;
  LinuxTasks tasks_{loop_, center_, {.callsReadabilityHandlers = CallsHandlers}};
};

template <bool CallsHandlers>
std::unique_ptr<TaskHarness> makeTaskHarness() {
  return std::make_unique<RealPrograms<CallsHandlers>>();
}

INSTANTIATE_TEST_SUITE_P(LinuxHandlers, TaskContract, testing::Values(&makeTaskHarness<true>));
INSTANTIATE_TEST_SUITE_P(LinuxNotices, TaskContract, testing::Values(&makeTaskHarness<false>));

class LinuxTasksTest : public testing::TestWithParam<bool> {
 protected:
  struct Outcome {
    int status = 0;
    std::string output;
    std::string error;
    int notices = 0;  // of standard output
  };

  static std::string textOf(const Data& data) { return std::string(data.begin(), data.end()); }

  std::unique_ptr<Task> shell(const std::string& script, std::vector<std::string> arguments = {}) {
    auto task = tasks_.newTask();
    task->setLaunchPath("/bin/sh");
    arguments.insert(arguments.begin(), {"-c", script, "sh"});
    task->setArguments(std::move(arguments));
    return task;
  }

  // Runs a shell script and collects its output in the way that the parameter selects.
  Outcome run(const std::string& script, std::vector<std::string> arguments = {}) {
    return run(*shell(script, std::move(arguments)));
  }

  Outcome run(Task& task) {
    Outcome outcome;
    task.makePipes();
    const auto [output, error] = task.pipes();
    const auto drain = [](FileHandle& handle, std::string& text) {
      for (Data data = handle.availableData(); !data.empty(); data = handle.availableData()) {
        text += textOf(data);
      }
    };
    std::vector<NotificationCenter::Observation> observations;
    for (const auto& [handle, text] :
         {std::pair(output, &outcome.output), std::pair(error, &outcome.error)}) {
      if (GetParam()) {
        handle->setReadabilityHandler(
            [text](FileHandle& readable) { *text += textOf(readable.availableData()); });
        continue;
      }
      observations.push_back(center_.addObserver(
          NSFileHandleDataAvailableNotification, handle,
          [&outcome, &drain, handle, text, isOutput = handle == output](const Notification&) {
            outcome.notices += isOutput;
            drain(*handle, *text);
            handle->waitForDataInBackgroundAndNotify();
          }));
      handle->waitForDataInBackgroundAndNotify();
    }
    const auto launched = task.launch();
    EXPECT_TRUE(launched) << launched.error().reason;
    outcome.status = task.waitUntilExit();
    if (!GetParam()) {
      drain(*output, outcome.output);
      drain(*error, outcome.error);
    }
    output->setReadabilityHandler(nullptr);
    error->setReadabilityHandler(nullptr);
    return outcome;
  }

  std::string pipeNamed(const std::string& name) {
    const std::string path = folder_.path(name);
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    return path;
  }

  TemporaryFolder folder_;
  VirtualRunLoop loop_;
  NotificationCenter center_;
  LinuxTasks tasks_{loop_, center_, {.callsReadabilityHandlers = GetParam()}};
};

INSTANTIATE_TEST_SUITE_P(Handlers, LinuxTasksTest, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(Notices, LinuxTasksTest, testing::Values(false));

TEST_P(LinuxTasksTest, ArgumentsArriveAsTheyAre) {
  EXPECT_EQ(run("printf '<%s>' \"$0\" \"$@\"", {"a b", "", "$HOME", "\u00e9\xff", "-x"}).output,
            "<sh><a b><><$HOME><\u00e9\xff><-x>");
}

TEST_P(LinuxTasksTest, AChildThatFloodsBothPipesAtOnceIsCollectedWhole) {
  const Outcome outcome =
      run("head -c 3000000 /dev/zero & head -c 3000000 /dev/zero >&2 & wait; "
          "head -c 1000000 /dev/zero >&2; head -c 1000000 /dev/zero");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output.size(), 4'000'000u);
  EXPECT_EQ(outcome.error.size(), 4'000'000u);
}

TEST_P(LinuxTasksTest, AChildThatClosesItsPipesEarlyIsWaitedForQuietly) {
  const std::string gate = pipeNamed("gate");
  const auto task = shell("echo before; exec >&- 2>&-; read line <\"$1\"; exit 5", {gate});
  // The script continues only after the child has closed all its files.
  std::thread opener([&] { std::ofstream(gate) << "go\n"; });
  const Outcome outcome = run(*task);
  opener.join();
  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(outcome.output, "before\n");
  // One for the data and one for the end, but no endless series while the child lives.
  EXPECT_LE(outcome.notices, 3);
}

TEST_P(LinuxTasksTest, AGrandchildThatHoldsThePipesIsNotWaitedFor) {
  const std::string gate = pipeNamed("gate");
  const Outcome outcome =
      run("(read line <\"$1\"; echo late) & echo early; echo error >&2; exit 7", {gate});
  EXPECT_EQ(outcome.status, 7);
  EXPECT_EQ(outcome.output, "early\n");
  EXPECT_EQ(outcome.error, "error\n");
  std::ofstream(gate) << "go\n";
}

// SIGPIPE ends it when nobody reads its pipe any more.
TEST_P(LinuxTasksTest, AGrandchildThatWritesForEverIsNotWaitedFor) {
  const Outcome outcome = run("yes & exit 3");
  EXPECT_EQ(outcome.status, 3);
}

TEST_P(LinuxTasksTest, AChildsInputIsEmpty) { EXPECT_EQ(run("cat; echo end").output, "end\n"); }

TEST_P(LinuxTasksTest, ASignalsNumberIsTheStatusAndOutputIsKept) {
  for (const int signal : {SIGTERM, SIGKILL, SIGSEGV}) {
    const Outcome outcome =
        run("ulimit -c 0; echo out; echo err >&2; kill -" + std::to_string(signal) + " $$");
    EXPECT_EQ(outcome.status, signal);
    EXPECT_EQ(outcome.output, "out\n");
    EXPECT_EQ(outcome.error, "err\n");
  }
}

TEST_P(LinuxTasksTest, SignalsHaveTheStateOfANewProgram) {
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto ignored = std::signal(SIGPIPE, SIG_IGN);
  const Outcome outcome = run("grep -E '^Sig(Blk|Ign)' /proc/self/status");
  std::signal(SIGPIPE, ignored);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  // The C library uses signals 32 and above itself.
  EXPECT_THAT(outcome.output, testing::MatchesRegex("SigBlk:\t0{16}\nSigIgn:\t0{7}.[08]0{7}\n"));
}

TEST_P(LinuxTasksTest, AChildGetsOnlyTheStandardDescriptors) {
  // A descriptor that stays open in executed programs.
  const int kept = ::fcntl(STDERR_FILENO, F_DUPFD, 100);
  const Outcome outcome = run("for f in /proc/$$/fd/*; do echo ${f##*/}; done");
  ::close(kept);
  EXPECT_EQ(outcome.output, "0\n1\n2\n3\n");  // The last is the one that lists them.
}

TEST_P(LinuxTasksTest, NoRunLeavesADescriptorOrAChild) {
  run("exit 0");  // Lets the C library open its own descriptors first.
  const std::size_t before = openDescriptors();
  run("echo x; exit 1");
  run("kill -9 $$");
  run("yes & exit 0");
  {
    const auto task = tasks_.newTask();
    task->setLaunchPath("/no/such/program");
    task->makePipes();
    task->pipes().standardOutput->setReadabilityHandler([](FileHandle&) {});
    EXPECT_FALSE(task->launch());
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_P(LinuxTasksTest, ATaskThatIsDestroyedEndsItsProgram) {
  const std::string gate = pipeNamed("gate");
  {
    const auto task = shell("read line <\"$1\"", {gate});
    task->makePipes();
    EXPECT_TRUE(task->launch());
  }
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
}

TEST_P(LinuxTasksTest, AFileThatIsNoProgramIsNotAccessible) {
  const std::string text = folder_.write("text", "no program");
  const std::string empty = folder_.write("nothing", "");
  ASSERT_EQ(::chmod(empty.c_str(), 0755), 0);
  for (const std::string& path : {text, empty, text + "/x", folder_.path(),
                                  std::string("/bin/sh\0x", 9), std::string(5000, 'x')}) {
    const auto task = tasks_.newTask();
    task->setLaunchPath(path);
    const auto launched = task->launch();
    ASSERT_FALSE(launched) << path;
    EXPECT_EQ(launched.error().reason, "launch path not accessible") << path;
  }
}

TEST_P(LinuxTasksTest, ImpossibleArgumentsRaise) {
  const auto refused = [&](std::string argument) {
    const auto task = shell("exit 0", {std::move(argument)});
    const auto launched = task->launch();
    return launched ? "" : launched.error().reason;
  };
  EXPECT_EQ(refused(std::string("a\0b", 3)), "/bin/sh: an argument: Invalid argument");
  EXPECT_EQ(refused(std::string(3'000'000, 'x')), "/bin/sh: Argument list too long");
}

#ifndef __SANITIZE_ADDRESS__  // The sanitizer needs descriptors itself.
TEST_P(LinuxTasksTest, WithoutDescriptorsTheLaunchRaises) {
  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  const std::size_t before = openDescriptors();
  int refused = 0;
  for (rlim_t limit = 3;; ++limit) {
    ASSERT_LT(limit, before + 30);
    const rlimit low{limit, original.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const auto task = shell("exit 0");
    task->makePipes();
    if (const TaskPipes pipes = task->pipes(); pipes.standardOutput && GetParam()) {
      pipes.standardOutput->setReadabilityHandler([](FileHandle&) {});
    }
    const auto launched = task->launch();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
    if (launched) {
      EXPECT_EQ(task->waitUntilExit(), 0);
      break;
    }
    EXPECT_THAT(launched.error().reason, testing::StartsWith("/bin/sh: "));
    EXPECT_THAT(launched.error().reason, testing::HasSubstr("Too many open files"));
    ++refused;
  }
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_GE(refused, 4);
}
#endif

TEST_P(LinuxTasksTest, ASoftLimitOfDescriptorsIsHandedOn) {
  rlimit ours{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &ours), 0);
  const std::string gate = pipeNamed("gate");
  LinuxTasks tasks(loop_, center_, {.callsReadabilityHandlers = GetParam(), .descriptorLimit = 77});
  const auto task = tasks.newTask();
  task->setLaunchPath("/bin/sh");
  task->setArguments({"-c", "read line <\"$0\"; ulimit -S -n; ulimit -H -n", gate});
  task->makePipes();
  ASSERT_TRUE(task->launch());
  std::ofstream(gate) << "go\n";
  EXPECT_EQ(task->waitUntilExit(), 0);
  const std::string hard =
      ours.rlim_max == RLIM_INFINITY ? "unlimited" : std::to_string(ours.rlim_max);
  EXPECT_EQ(textOf(task->pipes().standardOutput->availableData()), "77\n" + hard + "\n");
}

TEST_P(LinuxTasksTest, WithoutStandardFilesAProgramGivesThemToItsChild) {
  // A child does it, because the test needs its own standard files.
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int standard : {0, 1, 2}) ::close(standard);
    Outcome outcome;
    auto task = shell("echo out; echo err >&2; cat");
    task->makePipes();
    const bool launched = task->launch().has_value();
    const int status = launched ? task->waitUntilExit() : -1;
    const bool holds = status == 0 &&
                       textOf(task->pipes().standardOutput->availableData()) == "out\n" &&
                       textOf(task->pipes().standardError->availableData()) == "err\n";
    ::_exit(holds ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace platform
