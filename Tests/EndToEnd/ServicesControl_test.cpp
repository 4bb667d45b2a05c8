#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/EndToEnd/DemoRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr int kUnknownLabel = 3;
constexpr int kNobodyThere = 5;
constexpr char kAgent[] = "com.vantor.demo.agent";
constexpr char kScanner[] = "com.vantor.demo.scanner";
constexpr char kModern[] = "com.vantor.demo.modern";

class ServicesControlTest : public testing::Test {
 protected:
  // Runs "watch"; it has registered when this returns.
  std::unique_ptr<ChildProgram> watch(const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments{root_.controlProgram(), "watch"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    auto program = std::make_unique<ChildProgram>(std::move(arguments), std::vector<std::string>());
    EXPECT_EQ(program->nextErrorLine(), "Watching 9 services; Ctrl-C ends it.");
    return program;
  }

  // The next line that has the text; other events may happen before.
  static std::string lineWith(ChildProgram& notices, const std::string& text) {
    while (auto line = notices.nextLineIfAny())
      if (line->find(text) != line->npos) return *line;
    ADD_FAILURE() << "there is no line with " << text;
    return "";
  }

  static std::vector<std::string> environmentOf(ProcessId process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/environ");
    std::vector<std::string> environment;
    for (std::string variable; std::getline(file, variable, '\0');) {
      environment.push_back(variable);
    }
    return environment;
  }

  DemoRoot root_;
};

TEST_F(ServicesControlTest, TheListShowsEachServiceOfTheProduct) {
  const auto listed = root_.control({"list"});
  EXPECT_EQ(listed.status, exited(0)) << listed.errors;
  const std::string agent = std::to_string(root_.processOf(kAgent));
  EXPECT_THAT(
      listed.output,
      AllOf(ContainsRegex("^LABEL +TYPE +STATE +PID +SINCE +STARTS  WHY\n"),
            ContainsRegex("com\\.vantor\\.demo\\.agent +core +running +" + agent + " .*  -\n"),
            ContainsRegex(
                "com\\.vantor\\.demo\\.modern +core +needs 10\\.11 +- .*  this system is older\n"),
            ContainsRegex("com\\.vantor\\.demo\\.webfilter +feature +stopped +- .*  "
                          "switch off: common/WebFilterEnabled and 1 more\n"),
            Not(HasSubstr("parental"))));  // of another product
  const auto json = root_.control({"list", "--json"});
  EXPECT_THAT(json.output,
              AllOf(HasSubstr("\"type\": \"feature\""), HasSubstr("\"state\": \"unsupported\""),
                    HasSubstr("\"pid\": " + agent)));
}

TEST_F(ServicesControlTest, AStoppedServiceStaysStoppedUntilItIsStarted) {
  const ProcessId agent = root_.processOf(kAgent);
  const auto stopped = root_.control({"stop", kAgent});
  EXPECT_EQ(stopped.status, exited(0)) << stopped.errors;
  EXPECT_EQ(stopped.output, "com.vantor.demo.agent is stopped.\n");
  EXPECT_FALSE(isRunning(agent));

  // Another service's end makes the daemon evaluate all of them.
  const auto notices = watch();
  killAndAwait(root_.processOf(kScanner));
  EXPECT_THAT(lineWith(*notices, kScanner), EndsWith("com.vantor.demo.scanner  ended"));
  EXPECT_THAT(lineWith(*notices, kScanner), HasSubstr("com.vantor.demo.scanner  runs as process "));
  const auto listed = root_.control({"list"}).output;
  EXPECT_THAT(listed,
              ContainsRegex("com\\.vantor\\.demo\\.agent +core +stopped .*  stopped by hand\n"));
  EXPECT_THAT(listed,
              ContainsRegex(
                  "scanner +core +running +[0-9]+ .* 2  killed by SIGKILL, 1 crash in 2 starts\n"));

  const auto started = root_.control({"start", kAgent, "--json"});
  EXPECT_EQ(started.status, exited(0)) << started.errors;
  EXPECT_THAT(started.output, HasSubstr("\"pid\": " + std::to_string(root_.processOf(kAgent))));
}

TEST_F(ServicesControlTest, ProgramsGetALineOfJsonForEachNotice) {
  const auto notices = watch({"--json"});
  killAndAwait(root_.processOf(kAgent));
  EXPECT_THAT(lineWith(*notices, kAgent),
              EndsWith(R"("label":"com.vantor.demo.agent","state":"ended","pid":null})"));
  EXPECT_THAT(lineWith(*notices, kAgent),
              AllOf(HasSubstr(R"("state":"running","pid":)"),
                    testing::StartsWith(R"({"version":1,"event":"service","time":)")));
}

TEST_F(ServicesControlTest, WithAnUnknownLabelNothingIsDone) {
  const ProcessId agent = root_.processOf(kAgent);
  for (const std::vector<std::string>& command :
       {std::vector<std::string>{"stop"}, {"start"}, {"installer", "begin"}}) {
    std::vector<std::string> arguments = command;
    arguments.insert(arguments.end(), {kAgent, "com.example.nobody"});
    const auto finished = root_.control(arguments);
    EXPECT_EQ(finished.status, exited(kUnknownLabel)) << command.front();
    EXPECT_THAT(finished.errors, AllOf(HasSubstr("\"com.example.nobody\""),
                                       HasSubstr("\"servicemanagerctl list\"")));
  }
  EXPECT_TRUE(isRunning(agent));
  EXPECT_EQ(root_.processOf(kAgent), agent);
}

TEST_F(ServicesControlTest, AServiceForANewerSystemIsReported) {
  const auto started = root_.control({"start", kModern});
  EXPECT_EQ(started.status, exited(kFailed));
  EXPECT_EQ(started.output,
            "com.vantor.demo.modern is not started here: it needs release 10.11.\n");
  EXPECT_THAT(started.errors, HasSubstr("\"servicemanagerctl log\""));
}

TEST_F(ServicesControlTest, ALongStopIsReported) {
  const ProcessId agent = root_.processOf(kAgent);
  ASSERT_GT(agent, 0);
  // With the agent's environment it counts as one that the agent has started.
  ChildProgram stubborn({"/bin/sh", "-c", "trap '' TERM; echo ready; read line"},
                        environmentOf(agent));
  EXPECT_EQ(stubborn.nextLine(), "ready");
  ChildProgram stop({root_.controlProgram(), "stop", kAgent}, {});
  EXPECT_EQ(stop.nextErrorLine(),
            "Waiting for com.vantor.demo.agent to end, 1 s so far (killed after 20 s)");
  stubborn.closeInput();
  EXPECT_EQ(stop.waitForExit(), exited(0));
  EXPECT_EQ(stop.restOfOutput(), "com.vantor.demo.agent is stopped.\n");
}

TEST_F(ServicesControlTest, AnInstallersServicesStayStoppedUntilItEnds) {
  const ProcessId agent = root_.processOf(kAgent);
  const auto begun = root_.control({"installer", "begin", kAgent, kScanner});
  EXPECT_EQ(begun.status, exited(0)) << begun.errors;
  EXPECT_THAT(begun.output, AllOf(HasSubstr("com.vantor.demo.agent is stopped.\n"),
                                  HasSubstr("com.vantor.demo.scanner is stopped.\n")));
  EXPECT_FALSE(isRunning(agent));

  const auto notices = watch();
  const auto ended = root_.control({"installer", "end"});
  EXPECT_EQ(ended.status, exited(0)) << ended.errors;
  lineWith(*notices, "installer  has ended");
  const std::string runs = "  runs as process ";
  EXPECT_THAT(lineWith(*notices, runs) + lineWith(*notices, runs),
              AllOf(HasSubstr("com.vantor.demo.agent  runs as process "),
                    HasSubstr("com.vantor.demo.scanner  runs as process ")));
}

TEST_F(ServicesControlTest, AWatchGoesOnWithTheNextServiceManager) {
  const auto notices = watch({"--json=lines"});
  killAndAwait(root_.processOf(DemoRoot::kDaemon));
  EXPECT_THAT(lineWith(*notices, "connection"), HasSubstr(R"("state":"lost")"));
  EXPECT_THAT(lineWith(*notices, "connection"), HasSubstr(R"("state":"restored")"));
  // The next one finds the services running.
  EXPECT_THAT(lineWith(*notices, kAgent), HasSubstr(R"("state":"running")"));
}

TEST_F(ServicesControlTest, ASuspendedWatchHoldsNobodyUpAndGetsTheRest) {
  const auto suspended = watch();
  suspended->signal(SIGSTOP);
  const auto other = watch();
  killAndAwait(root_.processOf(kAgent));
  EXPECT_THAT(lineWith(*other, kAgent), EndsWith("ended"));
  EXPECT_THAT(lineWith(*other, kAgent), HasSubstr("runs as process "));
  suspended->signal(SIGCONT);
  EXPECT_THAT(lineWith(*suspended, kAgent), EndsWith("ended"));
  EXPECT_THAT(lineWith(*suspended, kAgent), HasSubstr("runs as process "));
}

TEST_F(ServicesControlTest, WithoutAServiceManagerTheToolGivesAdvice) {
  const auto removed = root_.control({"jobs", "remove", DemoRoot::kDaemon});
  EXPECT_EQ(removed.status, exited(0));
  EXPECT_THAT(removed.errors, HasSubstr("without it nobody watches the services"));
  for (const std::vector<std::string>& command : {std::vector<std::string>{"list"},
                                                  {"watch"},
                                                  {"start", kAgent},
                                                  {"stop", kAgent},
                                                  {"installer", "begin", kAgent},
                                                  {"installer", "end"}}) {
    const auto finished = root_.control(command);
    EXPECT_EQ(finished.status, exited(kNobodyThere)) << command.front();
    EXPECT_THAT(finished.errors,
                AllOf(HasSubstr("the service manager does not serve below " + root_.path()),
                      HasSubstr("\"servicemanagerctl jobs show com.vantor.servicemanager\"")));
  }
}

TEST_F(ServicesControlTest, AnotherRootsServicesAreReachedFromAnywhere) {
  const std::string fields = "label,state,pid";  // The time passes between the two commands.
  ChildProgram program({SERVICEMANAGERCTL, "--root", root_.path(), "list", "--fields", fields}, {});
  EXPECT_EQ(program.waitForExit(), exited(0)) << program.errors();
  EXPECT_EQ(program.restOfOutput(), root_.control({"list", "--fields", fields}).output);
  ChildProgram jobs({SERVICEMANAGERCTL, "jobs", "list", "--root", root_.path()}, {});
  EXPECT_EQ(jobs.waitForExit(), exited(0));
  EXPECT_THAT(jobs.restOfOutput(), HasSubstr(kAgent));
}

TEST_F(ServicesControlTest, TheLogIsShownWhole) {
  const auto log = root_.control({"log"});
  EXPECT_EQ(log.status, exited(0)) << log.errors;
  EXPECT_THAT(log.output, AllOf(testing::StartsWith("The log begins.\n"), HasSubstr("at work\n")));
}

TEST_F(ServicesControlTest, AUsageErrorHasItsOwnStatus) {
  for (const std::vector<std::string>& command : {std::vector<std::string>{"start"},
                                                  {"stop"},
                                                  {"installer"},
                                                  {"installer", "begin"},
                                                  {"installer", "end", kAgent},
                                                  {"list", "--type", "other"},
                                                  {"list", "--fields", "label,other"},
                                                  {"list", "--value", "--json"},
                                                  {"show"},
                                                  {"explain"},
                                                  {"explain", "--not-running"},
                                                  {"stop", kAgent, "--timeout", "0"},
                                                  {"list", "--root"}}) {
    EXPECT_EQ(root_.control(command).status, exited(kNotUnderstood)) << command.front();
  }
}

// Roots without a product.
class OtherRootTest : public testing::Test {
 protected:
  JobHostRoot::Finished control(const std::vector<std::string>& arguments) {
    std::vector<std::string> command{SERVICEMANAGERCTL};
    command.insert(command.end(), arguments.begin(), arguments.end());
    ChildProgram program(std::move(command), {});
    const ExitStatus status = program.waitForExit();
    std::string output = program.restOfOutput();
    return {status, std::move(output), program.errors()};
  }

  void configure(const std::string& keys) {
    const std::string file = folder_.write(
        "etc/vantor/platform.plist", "<plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
    std::filesystem::permissions(file, std::filesystem::perms(0644));
  }

  TemporaryFolder folder_;
};

TEST_F(OtherRootTest, AFolderThatIsNoRootIsRefused) {
  const auto refused = control({"list", "--root", folder_.path()});
  EXPECT_EQ(refused.status, exited(kFailed));
  EXPECT_THAT(refused.errors, HasSubstr(folder_.path() + " is no platform root"));
  EXPECT_THAT(control({"list", "--root", folder_.path("nowhere")}).errors,
              HasSubstr("No such file or directory"));
}

TEST_F(OtherRootTest, WithoutALogFileTheToolNamesTheLog) {
  configure("<key>LogSink</key><string>journal</string>");
  const auto journal = control({"log", "--root", folder_.path()});
  EXPECT_EQ(journal.status, exited(kFailed));
  EXPECT_THAT(journal.errors, HasSubstr("journalctl"));
  configure("<key>LogSink</key><string>syslog</string>");
  EXPECT_THAT(control({"log", "-f", "--root", folder_.path()}).errors, HasSubstr("/var/log/"));
}

TEST_F(OtherRootTest, AnEmptyLogIsReported) {
  configure("<key>LogSink</key><string>file</string>");
  const auto shown = control({"log", "--root", folder_.path()});
  EXPECT_EQ(shown.status, exited(kFailed));
  EXPECT_THAT(shown.errors, HasSubstr("there is no " + folder_.path("log/system.log")));
  EXPECT_EQ(control({"log", "-f", "--root", folder_.path()}).status, exited(kFailed));
}

}  // namespace
}  // namespace platform
