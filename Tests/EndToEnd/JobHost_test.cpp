// The job host's program in a platform root of its own.

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
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
    root_.write("etc/vantor/platform.plist", "<plist version=\"1.0\"><dict/></plist>");
    std::filesystem::create_directories(root_.path("log"));
    std::filesystem::create_directories(root_.path("bin"));
    std::filesystem::copy_file(JOBHOST, program_);
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
