// An operator reads the log of one service of the demo product.

#include <chrono>
#include <csignal>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Tests/EndToEnd/DemoRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class ServiceLogTest : public testing::Test {
 protected:
  static constexpr char kAgent[] = "com.vantor.demo.agent";
  static constexpr int kUnknown = 3;

  // The services of the demo print nothing, so a job prints.
  void print(const std::string& text) const {
    const TemporaryFolder folder;
    const std::string file = folder.write(
        "job.plist",
        "<plist version=\"1.0\"><dict><key>Label</key><string>com.vantor.demo.printer</string>"
        "<key>ProgramArguments</key><array><string>/bin/echo</string><string>" +
            text + "</string></array><key>RunAtLoad</key><true/></dict></plist>");
    EXPECT_EQ(root_.control({"jobs", "submit", file}).status, exited(0));
  }

  // The output of the command as soon as it has the text.
  std::string awaitOutput(const std::vector<std::string>& arguments,
                          const std::string& text) const {
    const Instant begin = monotonicTime();
    std::string output;
    while (monotonicTime() - begin < std::chrono::minutes(1)) {
      output = root_.control(arguments).output;
      if (output.find(text) != output.npos) return output;
      ::poll(nullptr, 0, 5);
    }
    ADD_FAILURE() << "no \"" << text << "\" in:\n" << output;
    return output;
  }

  DemoRoot root_;
};

TEST_F(ServiceLogTest, HasOnlyLinesAboutTheService) {
  const std::string output =
      awaitOutput({"log", kAgent}, "job \"com.vantor.demo.agent\": started process ");
  EXPECT_THAT(output, ContainsRegex("Z agent\\[[0-9]+\\] <Notice> at work\n"));
  EXPECT_THAT(output, Not(HasSubstr("updater")));
}

TEST_F(ServiceLogTest, TheLogOfAServiceHasItsOutput) {
  print("printed by the job");
  const std::string output = awaitOutput({"log", "com.vantor.demo.printer"}, "printed by");
  EXPECT_THAT(output, HasSubstr("Z com.vantor.demo.printer: printed by the job\n"));
  EXPECT_THAT(root_.control({"log", "com.vantor.demo.printer", "--json=lines"}).output,
              HasSubstr("\"source\":\"output\",\"label\":\"com.vantor.demo.printer\""));
}

TEST_F(ServiceLogTest, TimesAndLevelsSelectLines) {
  awaitOutput({"log", kAgent, "--since", "1 hour ago"},
              "job \"com.vantor.demo.agent\": started process ");
  for (const std::vector<std::string>& selection :
       {std::vector<std::string>{"--since", "2200-01-01"}, {"--level", "emergency"}}) {
    std::vector<std::string> command{"log", kAgent};
    command.insert(command.end(), selection.begin(), selection.end());
    const auto shown = root_.control(command);
    EXPECT_EQ(shown.status, exited(0)) << shown.errors;
    EXPECT_EQ(shown.output, "");
  }
  EXPECT_EQ(root_.control({"log", kAgent, "--this-run"}).status, exited(0));
}

TEST_F(ServiceLogTest, MisunderstoodOptionsAreSaid) {
  for (const std::string option : {"--since=soon", "--level=loud", "--json=tree"}) {
    const auto shown = root_.control({"log", kAgent, option});
    EXPECT_EQ(shown.status, exited(kNotUnderstood)) << option;
    EXPECT_THAT(shown.errors, HasSubstr(option.substr(0, option.find('=')) + ":"));
  }
  EXPECT_EQ(root_.control({"log", "--this-run"}).status, exited(kNotUnderstood));
}

TEST_F(ServiceLogTest, AnUnknownServiceIsSaid) {
  const auto shown = root_.control({"log", "com.vantor.demo.agend"});
  EXPECT_EQ(shown.status, exited(kUnknown));
  EXPECT_THAT(shown.errors, HasSubstr("did you mean com.vantor.demo.agent?"));
}

TEST_F(ServiceLogTest, NewLinesFollow) {
  ChildProgram follower({root_.controlProgram(), "log", "-f", kAgent}, {});
  EXPECT_EQ(root_.control({"restart", kAgent}).status, exited(0));
  std::string line;
  do {
    line = follower.nextLine();
  } while (!line.empty() && !line.ends_with("job \"com.vantor.demo.agent\": removed"));
  EXPECT_THAT(line, HasSubstr("] <Info> "));
}

TEST_F(ServiceLogTest, ShowEndsWithTheLastLines) {
  const auto shown = root_.control({"show", kAgent});
  EXPECT_EQ(shown.status, exited(0)) << shown.errors;
  EXPECT_THAT(shown.output, HasSubstr("\nIts last log lines:\n\n  20"));
  EXPECT_THAT(root_.control({"show", kAgent, "--lines", "0"}).output,
              Not(HasSubstr("last log lines")));
  EXPECT_THAT(root_.control({"show", kAgent, "--lines", "1", "--json"}).output,
              HasSubstr("\"log\": ["));
}

TEST_F(ServiceLogTest, ARestartWithItsLogHasItsOutcome) {
  const auto restarted = root_.control({"restart", "--log", kAgent});
  EXPECT_EQ(restarted.status, exited(0)) << restarted.errors;
  EXPECT_THAT(restarted.output, HasSubstr("com.vantor.demo.agent runs as process "));
}

}  // namespace
}  // namespace platform
