// An operator looks at the services, acts on them, and uses the answers in scripts.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Tests/EndToEnd/DemoRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class OperatorsDayTest : public testing::Test {
 protected:
  static constexpr char kAgent[] = "com.vantor.demo.agent";
  static constexpr char kWebFilter[] = "com.vantor.demo.webfilter";
  static constexpr int kTimedOut = 8;
  static constexpr int kNoSuchLabel = 3;

  static std::vector<std::string> environmentOf(ProcessId process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/environ");
    std::vector<std::string> environment;
    for (std::string variable; std::getline(file, variable, '\0');) environment.push_back(variable);
    return environment;
  }

  // Whether the agent sooner or later has a process, and another one than `before`.
  bool agentComesToHaveAnotherProcess(ProcessId before) const {
    const Instant begin = monotonicTime();
    do {
      const ProcessId now = root_.processOf(kAgent);
      if (now > 0 && now != before) return true;
    } while (monotonicTime() - begin < std::chrono::minutes(1));
    return false;
  }

  DemoRoot root_;
};

TEST_F(OperatorsDayTest, AnInstallerHasABannerAndIsAReason) {
  ASSERT_EQ(root_.control({"installer", "begin", kAgent}).status, exited(0));
  EXPECT_THAT(root_.control({"list", kAgent}).output,
              AllOf(testing::StartsWith("An installer is at work"),
                    ContainsRegex("demo\\.agent .*  installer at work\n")));
  const auto refused = root_.control({"reload-settings"});
  EXPECT_EQ(refused.status, exited(kFailed));
  EXPECT_THAT(refused.errors, HasSubstr("an installer is at work"));
  ASSERT_EQ(root_.control({"installer", "end"}).status, exited(0));
}

TEST_F(OperatorsDayTest, APlanTellsOnlyTheChangesAgainstNow) {
  const std::string catalogue =
      root_.path() +
      "/Library/ServiceManager/ServiceManager.bundle/Contents/Resources/Service.plist";
  const auto same = root_.control({"plan", "--catalogue", catalogue, "--diff"});
  EXPECT_EQ(same.status, exited(0)) << same.errors;
  EXPECT_EQ(same.output, "The same services would run as now.\n");
  const std::string settings = root_.path() + "/settings.json";
  std::ofstream(settings) << R"({"common": {"WebFilterEnabled": 1}})";
  const auto changed =
      root_.control({"plan", "--catalogue", catalogue, "--settings", settings, "--diff"});
  EXPECT_EQ(changed.status, exited(0)) << changed.errors;
  EXPECT_THAT(changed.output, ContainsRegex("^\\+ com\\.vantor\\.demo\\.webfilter: "));
  EXPECT_THAT(changed.output, Not(HasSubstr(kAgent)));
}

TEST_F(OperatorsDayTest, AStartOfASwitchedOffServiceSaysThatItIsUndone) {
  const auto started = root_.control({"start", kWebFilter});
  EXPECT_EQ(started.status, exited(0)) << started.errors;
  EXPECT_THAT(started.output, HasSubstr("com.vantor.demo.webfilter runs as process "));
  EXPECT_THAT(started.errors, ContainsRegex("none of its switches asks for it|no switch asks"));
}

TEST_F(OperatorsDayTest, AStopSaysHowLongItLasts) {
  const auto stopped = root_.control({"stop", kAgent});
  EXPECT_EQ(stopped.status, exited(0)) << stopped.errors;
  EXPECT_THAT(stopped.errors, HasSubstr("until the service manager is started again"));
}

TEST_F(OperatorsDayTest, ARestartHasAnotherProcess) {
  const ProcessId before = root_.processOf(kAgent);
  const auto restarted = root_.control({"restart", kAgent});
  EXPECT_EQ(restarted.status, exited(0)) << restarted.errors;
  EXPECT_FALSE(isRunning(before));
  const ProcessId after = root_.processOf(kAgent);
  EXPECT_GT(after, 0);
  EXPECT_NE(after, before);
}

TEST_F(OperatorsDayTest, AWaitEndsAfterItsTimeOut) {
  const ProcessId agent = root_.processOf(kAgent);
  ASSERT_GT(agent, 0);
  // With the agent's environment it counts as one that the agent has started.
  ChildProgram stubborn({"/bin/sh", "-c", "trap '' TERM; echo ready; read line"},
                        environmentOf(agent));
  EXPECT_EQ(stubborn.nextLine(), "ready");
  const auto late = root_.control({"stop", kAgent, "--timeout", "1"});
  EXPECT_EQ(late.status, exited(kTimedOut)) << late.errors;
  EXPECT_THAT(late.errors, HasSubstr("it was not done within 1 s, and still goes on"));
  stubborn.closeInput();
  const auto waited = root_.control({"stop", kAgent});
  EXPECT_EQ(waited.status, exited(0)) << waited.errors;
}

TEST_F(OperatorsDayTest, ARestartGoesOnAfterItsTimeOut) {
  const ProcessId agent = root_.processOf(kAgent);
  ASSERT_GT(agent, 0);
  // With the agent's environment it counts as one that the agent has started.
  ChildProgram stubborn({"/bin/sh", "-c", "trap '' TERM; echo ready; read line"},
                        environmentOf(agent));
  EXPECT_EQ(stubborn.nextLine(), "ready");
  const auto late = root_.control({"restart", kAgent, "--timeout", "1"});
  EXPECT_EQ(late.status, exited(kTimedOut)) << late.errors;
  EXPECT_THAT(late.errors, HasSubstr("it was not done within 1 s, and still goes on"));
  stubborn.closeInput();
  EXPECT_TRUE(agentComesToHaveAnotherProcess(agent));
}

TEST_F(OperatorsDayTest, ARestartNeedsNoWait) {
  const ProcessId agent = root_.processOf(kAgent);
  const auto asked = root_.control({"restart", "--no-wait", kAgent});
  EXPECT_EQ(asked.status, exited(0)) << asked.errors;
  EXPECT_EQ(asked.output, "com.vantor.demo.agent is to be restarted.\n");
  EXPECT_TRUE(agentComesToHaveAnotherProcess(agent));
}

TEST_F(OperatorsDayTest, WithoutAWaitTheRequestIsEnough) {
  const auto asked = root_.control({"stop", "--no-wait", kAgent});
  EXPECT_EQ(asked.status, exited(0)) << asked.errors;
  EXPECT_EQ(asked.output, "com.vantor.demo.agent is to be stopped.\n");
  EXPECT_THAT(root_.control({"start", "--no-wait", "--json", kAgent}).output,
              HasSubstr("\"asked\": \"started\""));
}

TEST_F(OperatorsDayTest, TheExitStatusTellsHowServicesAre) {
  EXPECT_EQ(root_.control({"is-running", kAgent}).status, exited(0));
  EXPECT_EQ(root_.control({"is-running", kAgent, kWebFilter}).status, exited(kFailed));
  const auto quiet = root_.control({"is-failed", "-q", kAgent});
  EXPECT_EQ(quiet.status, exited(kFailed));
  EXPECT_EQ(quiet.output + quiet.errors, "");
  const auto unknown = root_.control({"is-running", "agent"});
  EXPECT_EQ(unknown.status, exited(kNoSuchLabel));
  EXPECT_THAT(unknown.errors, HasSubstr("did you mean com.vantor.demo.agent?"));
}

TEST_F(OperatorsDayTest, ScriptsGetTheFieldsThatTheyName) {
  const std::string agent = std::to_string(root_.processOf(kAgent));
  EXPECT_EQ(root_.control({"list", "--value", "--fields", "label,pid,why", kAgent}).output,
            "com.vantor.demo.agent\t" + agent + "\t\n");
  EXPECT_EQ(root_.control({"list", "--value", "--type", "feature", "*.webfilter"}).output,
            "com.vantor.demo.webfilter\n");
  EXPECT_EQ(root_.control({"list", "--failed"}).output, "No services.\n");
}

TEST_F(OperatorsDayTest, AServiceIsShownWithItsEnds) {
  killAndAwait(root_.processOf(kAgent));
  const Instant killed = monotonicTime();
  std::string shown;
  do {  // until the job host has noticed the end, too
    shown = root_.control({"show", kAgent}).output;
  } while (shown.find("killed by SIGKILL") == shown.npos &&
           monotonicTime() - killed < std::chrono::minutes(1));
  EXPECT_THAT(shown, AllOf(HasSubstr("  process     "), HasSubstr("1 crashes."),
                           HasSubstr("killed by SIGKILL")));
  EXPECT_THAT(root_.control({"show", "--json", kAgent}).output,
              AllOf(HasSubstr("\"lastEnds\""), HasSubstr("\"nextStart\"")));
  EXPECT_EQ(root_.control({"show", "agent"}).status, exited(kNoSuchLabel));
}

TEST_F(OperatorsDayTest, AllServicesThatDoNotRunAreExplained) {
  const auto explained = root_.control({"explain", "--all", "--not-running"});
  EXPECT_EQ(explained.status, exited(0)) << explained.errors;
  EXPECT_THAT(explained.output, AllOf(HasSubstr("com.vantor.demo.webfilter does not run"),
                                      Not(HasSubstr("com.vantor.demo.agent runs"))));
}

TEST_F(OperatorsDayTest, AReaderMayLeave) {
  ChildProgram list(
      {"/bin/sh", "-c", "{ " + root_.controlProgram() + " list; echo status $? >&2; } | true"}, {});
  EXPECT_EQ(list.waitForExit(), exited(0));
  EXPECT_EQ(list.errors(), "status 0\n");
}

TEST_F(OperatorsDayTest, ATerminalOfSixtyColumnsIsEnough) {
  constexpr char kScript[] = "/usr/bin/script";
  if (!std::filesystem::exists(kScript)) GTEST_SKIP() << "there is no " << kScript;
  ChildProgram list(
      {kScript, "-qec", "stty cols 60; " + root_.controlProgram() + " list", "/dev/null"},
      {"PATH=/usr/bin:/bin", "TERM=xterm", "NO_COLOR=1"});
  EXPECT_EQ(list.waitForExit(), exited(0));
  std::istringstream lines(list.restOfOutput());
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    if (line.ends_with('\r')) line.pop_back();
    EXPECT_LE(line.size(), 60u) << line;
    EXPECT_EQ(line.find('\033'), line.npos) << line;
  }
  EXPECT_GT(count, 9u);
}

}  // namespace
}  // namespace platform
