// The job host's program in a platform root of its own.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/JobBackend.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace {

using platform::ChildProgram;
using platform::contentOfFile;
using platform::ExitStatus;
using platform::NotifySocket;
using platform::UniqueFd;
using testing::AllOf;
using testing::HasSubstr;

class JobHostProgram : public testing::Test {
 protected:
  JobHostProgram() {
    root_.write("etc/vantor/platform.plist",
                "<plist version=\"1.0\"><dict>" + platform::jobBackendEntry() + "</dict></plist>");
    std::filesystem::create_directories(root_.path("log"));
    std::filesystem::create_directories(root_.path("bin"));
    std::filesystem::copy_file(JOBHOST, program_);
    std::filesystem::copy_file(JOBSTART, root_.path("bin/jobstart"));
    std::filesystem::create_directories(root_.path("Library/LaunchDaemons"));
    root_.write("Library/LaunchDaemons/com.example.daemon.plist",
                "<plist version=\"1.0\"><dict><key>Label</key><string>com.example.daemon</string>"
                "<key>ProgramArguments</key><array><string>/bin/sh</string><string>-c</string>"
                "<string>echo $$; exec sleep 1000</string></array>"
                "<key>StandardOutPath</key><string>" +
                    root_.path("output") + "</string><key>KeepAlive</key><true/></dict></plist>");
  }

  platform::TemporaryFolder root_;
  const std::string program_ = root_.path("bin/jobhost");
};

// Makes the daemon's output a pipe, and reads from it which process each start has made.
class StartedDaemons {
 public:
  explicit StartedDaemons(const std::string& path) {
    EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
    pipe_ = UniqueFd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_TRUE(pipe_);
  }
  platform::ProcessId next() const {
    std::string line;
    for (char byte = 0; byte != '\n'; line += byte) {
      pollfd entry{pipe_.get(), POLLIN, 0};
      if (::poll(&entry, 1, 60'000) != 1 || ::read(pipe_.get(), &byte, 1) != 1) {
        ADD_FAILURE() << "no daemon was started";
        return -1;
      }
    }
    return std::stoi(line);
  }
  bool hasMore() const {
    pollfd entry{pipe_.get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
  }

 private:
  UniqueFd pipe_;
};

TEST_F(JobHostProgram, RunsItsDaemonsUntilItIsStopped) {
  NotifySocket manager(root_.path("notify"));
  ChildProgram host({program_}, {"NOTIFY_SOCKET=" + root_.path("notify")});
  EXPECT_EQ(manager.next(), "READY=1");
  ASSERT_TRUE(std::filesystem::exists(root_.path("output")));
  host.signal(SIGTERM);
  EXPECT_EQ(manager.next(), "STOPPING=1");
  EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
  // No job is left for the next host.
  EXPECT_TRUE(std::filesystem::is_empty(root_.path("run/vantor/mach")));
}

TEST_F(JobHostProgram, ReplacesItselfWithoutAnEffectOnItsJobs) {
  const StartedDaemons started(root_.path("output"));
  NotifySocket manager(root_.path("notify"));
  ChildProgram host({program_},
                    {"NOTIFY_SOCKET=" + root_.path("notify"), "WATCHDOG_USEC=3600000000"});
  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_EQ(manager.next(), "WATCHDOG=1\nSTATUS=keeps 1 jobs");
  const platform::ProcessId daemon = started.next();
  ASSERT_GT(daemon, 0);
  for (int round = 0; round < 3; ++round) {
    // A package replaces the file.
    std::filesystem::copy_file(JOBHOST, root_.path("bin/new"));
    std::filesystem::rename(root_.path("bin/new"), program_);
    host.signal(SIGHUP);
    EXPECT_THAT(manager.next(), testing::StartsWith("RELOADING=1\n"));
    EXPECT_EQ(manager.next(), "READY=1");
    EXPECT_EQ(manager.next(), "WATCHDOG=1\nSTATUS=keeps 1 jobs");
    EXPECT_TRUE(platform::isRunning(daemon));
    EXPECT_FALSE(started.hasMore());
  }
  // Without its file it goes on.
  std::filesystem::remove(program_);
  host.signal(SIGHUP);
  EXPECT_THAT(manager.next(), testing::StartsWith("RELOADING=1\n"));
  EXPECT_EQ(manager.next(), "READY=1");
  EXPECT_TRUE(platform::isRunning(daemon));
  host.signal(SIGTERM);
  EXPECT_EQ(manager.next(), "STOPPING=1");
  EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
  EXPECT_FALSE(platform::isRunning(daemon));
}

TEST_F(JobHostProgram, AReplacedHostKnowsTheLimitOfDescriptorsForItsJobs) {
  if (platform::testsUseSystemd()) GTEST_SKIP() << "systemd sets the limits of its processes";
  root_.write("Library/LaunchDaemons/com.example.daemon.plist",
              "<plist version=\"1.0\"><dict><key>Label</key><string>com.example.daemon</string>"
              "<key>ProgramArguments</key><array><string>/bin/sh</string><string>-c</string>"
              "<string>echo $$; ulimit -S -n; exec sleep 1000</string></array>"
              "<key>StandardOutPath</key><string>" +
                  root_.path("output") +
                  "</string><key>KeepAlive</key><true/><key>ThrottleInterval</key><integer>0"
                  "</integer></dict></plist>");
  const StartedDaemons started(root_.path("output"));
  NotifySocket manager(root_.path("notify"));
  ChildProgram host({"/bin/sh", "-c", "ulimit -S -n 512; exec \"$0\"", program_},
                    {"NOTIFY_SOCKET=" + root_.path("notify")});
  EXPECT_EQ(manager.next(), "READY=1");
  platform::ProcessId daemon = started.next();
  EXPECT_EQ(started.next(), 512);
  // The last time there is no program that could replace it.
  for (const bool isReplaced : {true, true, false}) {
    if (!isReplaced) std::filesystem::remove(program_);
    rlimit before{};
    ASSERT_EQ(::prlimit(host.process(), RLIMIT_NOFILE, nullptr, &before), 0);
    host.signal(SIGHUP);
    EXPECT_THAT(manager.next(), testing::StartsWith("RELOADING=1\n"));
    EXPECT_EQ(manager.next(), "READY=1");
    rlimit after{};
    ASSERT_EQ(::prlimit(host.process(), RLIMIT_NOFILE, nullptr, &after), 0);
    EXPECT_EQ(after.rlim_cur, before.rlim_cur);
    ASSERT_GT(daemon, 0);
    ASSERT_EQ(::kill(daemon, SIGKILL), 0);
    daemon = started.next();
    EXPECT_EQ(started.next(), 512);
  }
  host.signal(SIGTERM);
  EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
}

TEST_F(JobHostProgram, AStopWhileItReplacesItselfEndsItsJobs) {
  const StartedDaemons started(root_.path("output"));
  for (int round = 0; round < 10; ++round) {
    NotifySocket manager(root_.path("notify" + std::to_string(round)));
    ChildProgram host({program_},
                      {"NOTIFY_SOCKET=" + root_.path("notify" + std::to_string(round))});
    EXPECT_EQ(manager.next(), "READY=1");
    const platform::ProcessId daemon = started.next();
    ASSERT_GT(daemon, 0);
    host.signal(SIGHUP);
    if (round % 2 == 1) {
      EXPECT_THAT(manager.next(), testing::StartsWith("RELOADING=1\n"));
    }
    host.signal(SIGTERM);
    EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
    EXPECT_FALSE(platform::isRunning(daemon));
  }
}

TEST_F(JobHostProgram, AnswersItsArgumentsAndStartsNothing) {
  ChildProgram help({program_, "--help"}, {});
  EXPECT_EQ(help.waitForExit(), ExitStatus{});
  EXPECT_THAT(help.restOfOutput(), HasSubstr("Usage: jobhost"));
  ChildProgram version({program_, "--version"}, {});
  EXPECT_EQ(version.waitForExit(), ExitStatus{});
  EXPECT_THAT(version.restOfOutput(), testing::StartsWith("jobhost "));
  for (const auto& arguments : std::vector<std::vector<std::string>>{
           {program_, "--halp"}, {program_, ""}, {program_, "--help", "--halp"}}) {
    ChildProgram wrong(arguments, {});
    EXPECT_EQ(wrong.waitForExit().number, 2);
    EXPECT_THAT(wrong.errors(), HasSubstr("there is no argument \"" + arguments.back() + "\""));
  }
  EXPECT_FALSE(std::filesystem::exists(root_.path("run")));
}

// Nobody reads what a service says to its standard error.
TEST_F(JobHostProgram, AConfigurationThatCannotBeReadIsAnErrorInTheLog) {
  root_.write("etc/vantor/platform.plist", "<plist");
  ChildProgram host({program_}, {});
  EXPECT_EQ(host.waitForExit().number, 1);
  EXPECT_THAT(contentOfFile(root_.path("log/system.log")),
              AllOf(HasSubstr("jobhost["), HasSubstr("the program does not start: "),
                    HasSubstr("platform.plist:1")));
}

TEST_F(JobHostProgram, AStopWhileItStartsItsDaemonsEndsThemToo) {
  if (platform::testsUseSystemd()) GTEST_SKIP() << "the daemon's parent is systemd, not the host";
  // The first daemon requests the stop, while the host still has all others to start.
  root_.write("Library/LaunchDaemons/com.example.daemon.plist",
              "<plist version=\"1.0\"><dict><key>Label</key><string>com.example.daemon</string>"
              "<key>ProgramArguments</key><array><string>/bin/sh</string><string>-c</string>"
              "<string>echo $$; kill -TERM $PPID; exec sleep 1000</string></array>"
              "<key>StandardOutPath</key><string>" +
                  root_.path("output") + "</string><key>KeepAlive</key><true/></dict></plist>");
  for (int number = 100; number < 200; ++number) {
    const std::string label = "com.example.later" + std::to_string(number);
    root_.write("Library/LaunchDaemons/" + label + ".plist",
                "<plist version=\"1.0\"><dict><key>Label</key><string>" + label +
                    "</string><key>ProgramArguments</key><array><string>/bin/sleep</string>"
                    "<string>1000</string></array><key>RunAtLoad</key><true/></dict></plist>");
  }
  ChildProgram host({program_}, {});
  EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
  platform::ProcessId daemon = 0;
  std::ifstream(root_.path("output")) >> daemon;
  ASSERT_GT(daemon, 0);
  EXPECT_FALSE(platform::isRunning(daemon));
  EXPECT_TRUE(std::filesystem::is_empty(root_.path("run/vantor/mach")));
}

// The signal is pending before the program starts, and blocked.
TEST_F(JobHostProgram, AStopBeforeTheFirstDaemonStartsNone) {
  ChildProgram host(
      {"/usr/bin/env", "--block-signal=TERM", "/bin/sh", "-c", "kill -TERM $$; exec " + program_},
      {});
  EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
  EXPECT_FALSE(std::filesystem::exists(root_.path("output")));
}

TEST_F(JobHostProgram, StartedWithBlockedSignalsItCanStillBeStopped) {
  NotifySocket manager(root_.path("notify"));
  ChildProgram host({"/usr/bin/env", "--block-signal=TERM", "--block-signal=INT", program_},
                    {"NOTIFY_SOCKET=" + root_.path("notify")});
  EXPECT_EQ(manager.next(), "READY=1");
  host.signal(SIGTERM);
  EXPECT_EQ(host.waitForExit(), ExitStatus{}) << host.errors();
}

// Reports the next time that a file is opened.
class FileOpenWatch {
 public:
  explicit FileOpenWatch(const std::string& path) : notices_(::inotify_init1(IN_CLOEXEC)) {
    EXPECT_GE(::inotify_add_watch(notices_.get(), path.c_str(), IN_OPEN), 0) << path;
  }
  void await() const {
    pollfd entry{notices_.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1) << "nobody opens the file";
  }

 private:
  const UniqueFd notices_;
};

TEST_F(JobHostProgram, AStopWhileItWaitsForAnotherHostEndsIt) {
  NotifySocket manager(root_.path("notify"));
  ChildProgram first({program_}, {"NOTIFY_SOCKET=" + root_.path("notify")});
  EXPECT_EQ(manager.next(), "READY=1");
  for (const bool firstEnds : {false, true}) {
    const FileOpenWatch lock(root_.path("run/vantor/launchd.lock"));
    ChildProgram second({program_}, {});
    lock.await();
    second.signal(SIGTERM);
    if (firstEnds) first.signal(SIGKILL);  // Now the second host takes over the daemon.
    // If it has not reached the loop that handles the request, the signal itself ends it.
    const ExitStatus status =
        firstEnds ? ExitStatus{} : ExitStatus{ExitStatus::Kind::kSignalled, SIGTERM};
    EXPECT_EQ(second.waitForExit(), status) << second.errors();
  }
  // The daemon was started once, by the first host, and ended by the host that took it over.
  std::ifstream output(root_.path("output"));
  platform::ProcessId daemon = 0;
  output >> daemon;
  ASSERT_GT(daemon, 0);
  EXPECT_FALSE(platform::isRunning(daemon));
  EXPECT_FALSE(output >> daemon);
}

TEST_F(JobHostProgram, TheReasonOfAFailedStartIsInTheSystemLogToo) {
  std::filesystem::create_directories(root_.path("run/vantor/mach"));
  std::filesystem::permissions(root_.path("run/vantor/mach"), std::filesystem::perms::all);
  ChildProgram host({program_}, {});
  EXPECT_EQ(host.waitForExit(), (ExitStatus{ExitStatus::Kind::kExited, 1}));
  const std::string why = root_.path("run/vantor/mach") + ": not trusted";
  EXPECT_NE(host.errors().find(why), std::string::npos) << host.errors();
  std::ifstream file(root_.path("log/system.log"));
  std::ostringstream log;
  log << file.rdbuf();
  EXPECT_NE(log.str().find("the job host does not start: " + why), std::string::npos) << log.str();
}

}  // namespace
