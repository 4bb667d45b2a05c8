// "servicemanagerctl metrics" beside a real daemon.

#include <csignal>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class DaemonMetrics : public DaemonFixture {
 protected:
  void startAll() {
    start(1);
    awaitServices(root_, labels());
  }
  std::string metrics() {
    ChildProgram program({root_.folder().path("servicemanagerctl"), "metrics"}, {});
    EXPECT_EQ(program.waitForExit(), kSuccess);
    return program.restOfOutput();
  }
  // Whether the metrics have the text sooner or later. The daemon says in no other way when it has
  // evaluated.
  bool comeToHave(const std::string& text) {
    constexpr int kMostTries = 1000;
    for (int i = 0; i < kMostTries; ++i) {
      if (metrics().find(text) != std::string::npos) return true;
    }
    return false;
  }

  const std::string service_ = "{service=\"" + DaemonRoot::label(0) + "\"} ";
};

TEST_F(DaemonMetrics, TellOfEachService) {
  startAll();
  EXPECT_THAT(metrics(), AllOf(HasSubstr("servicemanager_up 1\n"),
                               HasSubstr("servicemanager_mode{mode=\"normal\"} 1\n"),
                               HasSubstr("servicemanager_service_running" + service_ + "1\n"),
                               HasSubstr("servicemanager_service_wanted" + service_ + "1\n"),
                               HasSubstr("servicemanager_service_crashes_total" + service_ + "0\n"),
                               Not(HasSubstr("down_reason"))));
  expectKilledServiceIsReported(DaemonRoot::label(0));
  EXPECT_THAT(metrics(), HasSubstr("servicemanager_service_crashes_total" + service_ + "1\n"));
}

TEST_F(DaemonMetrics, ADaemonThatHangsIsDown) {
  startAll();
  const ProcessId daemon = root_.processOf(DaemonRoot::kDaemon);
  ASSERT_EQ(::kill(daemon, SIGSTOP), 0);
  EXPECT_THAT(metrics(), AllOf(HasSubstr("servicemanager_up 0\n"), Not(HasSubstr("_service_"))));
  ::kill(daemon, SIGCONT);
}

TEST_F(DaemonMetrics, ADamagedProgramIsNamed) {
  startAll();
  const std::string program = root_.folder().path("opt/agent");
  std::filesystem::copy_file(program, program + ".new");
  std::ofstream(program + ".new", std::ios::app) << "damage";
  std::filesystem::rename(program + ".new", program);
  root_.kill(DaemonRoot::label(0), SIGKILL);
  EXPECT_TRUE(comeToHave("servicemanager_service_down_reason{service=\"" + DaemonRoot::label(0) +
                         "\",reason=\"damaged\"} 1\n"));
  EXPECT_THAT(metrics(), HasSubstr("servicemanager_service_wanted" + service_ + "1\n"));
}

TEST_F(DaemonMetrics, AScraperGetsTheFile) {
  startAll();
  const std::string file = root_.folder().write("vantor.prom", "servicemanager_up 1\n");
  ChildProgram program({root_.folder().path("servicemanagerctl"), "metrics", "--serve", file}, {});
  program.send("GET /metrics HTTP/1.1\r\n\r");
  EXPECT_EQ(program.waitForExit(), kSuccess);
  EXPECT_THAT(program.restOfOutput(), AllOf(StartsWith("HTTP/1.1 200 OK\r\n"),
                                            testing::EndsWith("\r\n\r\nservicemanager_up 1\n")));
}

}  // namespace
}  // namespace platform
