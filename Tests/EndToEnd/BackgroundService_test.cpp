#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::HasSubstr;

class BackgroundServiceProgramTest : public testing::Test {
 protected:
#ifdef __SANITIZE_THREAD__
  // Its runtime delays a signal until the program's next call, which never comes if the program has
  // begun to wait for that signal in between: one run in eighty hangs, and a second signal ends it.
  // The program has one thread.
  void SetUp() override { GTEST_SKIP() << "ThreadSanitizer delays signals"; }
#endif

  static std::vector<std::string> arguments(const std::string& className) {
    return {BACKGROUND_SERVICE_PROGRAM, className};
  }
  std::vector<std::string> environment() const {
    return {"NOTIFY_SOCKET=" + folder_.path("notify")};
  }

  TemporaryFolder folder_;
  NotifySocket notify_{folder_.path("notify")};
};

TEST_F(BackgroundServiceProgramTest, RunsFromReadinessToATerminationSignal) {
  for (const int signal : {SIGTERM, SIGINT}) {
    ChildProgram program(arguments("Service"), environment());
    EXPECT_EQ(notify_.next(), "READY=1");
    EXPECT_EQ(program.nextLine(), "made");
    EXPECT_EQ(program.nextLine(), "launched");
    program.signal(signal);
    EXPECT_EQ(program.waitForExit(), kSuccess);
    EXPECT_EQ(program.restOfOutput(), "terminated\n");
    EXPECT_EQ(program.errors(), "");
    EXPECT_EQ(notify_.next(), "STOPPING=1");
    EXPECT_FALSE(notify_.hasMore());
  }
}

TEST_F(BackgroundServiceProgramTest, NeedsNoServiceManager) {
  ChildProgram program(arguments("Service"), {});
  EXPECT_EQ(program.nextLine(), "made");
  EXPECT_EQ(program.nextLine(), "launched");
  program.signal(SIGTERM);
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_EQ(program.restOfOutput(), "terminated\n");
  EXPECT_EQ(program.errors(), "");
}

TEST_F(BackgroundServiceProgramTest, ASignalBeforeTheInstanceIsMadeIsNotLost) {
  ChildProgram program(arguments("SignalledBeforeItIsMade"), environment());
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_EQ(program.restOfOutput(), "made\nlaunched\nterminated\n");
  EXPECT_EQ(notify_.next(), "READY=1");
  EXPECT_EQ(notify_.next(), "STOPPING=1");
}

TEST_F(BackgroundServiceProgramTest, ASignalDuringLaunchingLetsItFinish) {
  ChildProgram program(arguments("SlowToLaunch"), environment());
  EXPECT_EQ(program.nextLine(), "made");
  EXPECT_EQ(program.nextLine(), "launching");
  program.signal(SIGTERM);
  program.signal(SIGINT);
  EXPECT_FALSE(notify_.hasMore());
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_EQ(program.restOfOutput(), "launched\nterminated\n");
  EXPECT_EQ(notify_.next(), "READY=1");
  EXPECT_EQ(notify_.next(), "STOPPING=1");
}

TEST_F(BackgroundServiceProgramTest, FurtherSignalsDuringTerminationDoNotKill) {
  ChildProgram program(arguments("SlowToTerminate"), environment());
  EXPECT_EQ(notify_.next(), "READY=1");
  program.signal(SIGTERM);
  EXPECT_EQ(notify_.next(), "STOPPING=1");
  EXPECT_EQ(program.nextLine(), "made");
  EXPECT_EQ(program.nextLine(), "launched");
  EXPECT_EQ(program.nextLine(), "terminating");
  program.signal(SIGTERM);
  program.signal(SIGINT);
  program.closeInput();
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_EQ(program.restOfOutput(), "terminated\n");
}

TEST_F(BackgroundServiceProgramTest, AnUnknownClassIsAnErrorWithAdvice) {
  ChildProgram program(arguments("Servise"), environment());
  const ExitStatus status = program.waitForExit();
  EXPECT_EQ(status.kind, ExitStatus::Kind::kExited);
  EXPECT_NE(status.number, 0);
  EXPECT_THAT(program.errors(),
              HasSubstr("there is no class \"Servise\"; add it to the table of classes"));
  EXPECT_EQ(program.restOfOutput(), "");
  EXPECT_FALSE(notify_.hasMore());
}

TEST_F(BackgroundServiceProgramTest, AnUnheardAnnouncementIsReportedAndChangesNothing) {
  ChildProgram program(arguments("Service"), {"NOTIFY_SOCKET=" + folder_.path("nobody")});
  EXPECT_EQ(program.nextLine(), "made");
  EXPECT_EQ(program.nextLine(), "launched");
  program.signal(SIGTERM);
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_THAT(program.errors(), HasSubstr(folder_.path("nobody")));
}

TEST_F(BackgroundServiceProgramTest, FindsItsPlatformRootAndBundle) {
  folder_.write("etc/vantor/platform.plist",
                "<plist version=\"1.0\"><dict><key>KernelRelease</key>"
                "<string>14.5.0</string></dict></plist>");
  std::filesystem::permissions(folder_.path("etc/vantor/platform.plist"),
                               std::filesystem::perms(0644));
  std::filesystem::create_directories(folder_.path("D.bundle/Contents/Linux"));
  const std::string copy = folder_.path("D.bundle/Contents/Linux/d");
  std::filesystem::copy_file(BACKGROUND_SERVICE_PROGRAM, copy);
  std::filesystem::create_symlink(copy, folder_.path("link"));

  ChildProgram program({folder_.path("link"), "Surveyor"}, environment());
  EXPECT_EQ(notify_.next(), "READY=1");
  program.signal(SIGTERM);
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_EQ(program.restOfOutput(), "made\nroot " + folder_.path() + " 14.5.0\nbundle " +
                                        folder_.path("D.bundle") + "\nterminated\n");
}

}  // namespace
}  // namespace platform
