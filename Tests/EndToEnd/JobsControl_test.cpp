#include <csignal>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "Platform/PropertyLists/PropertyList.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::StartsWith;

constexpr int kNoSuchJob = 3;
constexpr int kNotPermitted = 4;
constexpr int kNoHost = 5;

class JobsControlTest : public testing::Test {
 protected:
  // A file with a job, below the root.
  std::string jobFile(const std::string& keys) {
    return root_.folder().write("job.plist",
                                "<plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
  }

  std::string agentFile(const std::string& program) {
    return jobFile("<key>Label</key><string>com.example.agent</string><key>Program</key><string>" +
                   program + "</string><key>RunAtLoad</key><true/>");
  }

  void submitAgent() {
    const auto submitted = root_.control({"jobs", "submit", agentFile(root_.program())});
    EXPECT_EQ(submitted.status, exited(0)) << submitted.errors;
  }

  ProcessId agent() {
    const auto shown = root_.control({"jobs", "show", "com.example.agent", "--json"});
    const std::size_t at = shown.output.find("\"pid\": ");
    return at == std::string::npos ? 0 : std::atoi(shown.output.c_str() + at + 7);
  }

  JobHostRoot root_;
};

TEST_F(JobsControlTest, AHostWithoutJobsSaysSo) {
  const auto listed = root_.control({"jobs", "list"});
  EXPECT_EQ(listed.status, exited(0)) << listed.errors;
  EXPECT_EQ(listed.output, "No jobs.\n");
  EXPECT_EQ(root_.control({"jobs", "list", "--json"}).output, "[]\n");
}

TEST_F(JobsControlTest, AJobIsSubmittedListedShownAndRemoved) {
  const auto submitted = root_.control({"jobs", "submit", agentFile(root_.program())});
  EXPECT_EQ(submitted.status, exited(0)) << submitted.errors;
  const std::string process = std::to_string(agent());
  EXPECT_TRUE(isRunning(agent()));
  EXPECT_EQ(submitted.output, "com.example.agent runs as process " + process + ".\n");

  const auto listed = root_.control({"jobs", "list"});
  EXPECT_THAT(listed.output,
              AllOf(StartsWith("LABEL                  PID  STARTS  CRASHES  LAST EXIT\n"),
                    HasSubstr("com.example.agent"), HasSubstr(process + "       1        0  -\n")));
  const auto shown = root_.control({"jobs", "show", "com.example.agent"});
  EXPECT_THAT(shown.output, AllOf(HasSubstr("Program    \"" + root_.program() + "\"\n"),
                                  HasSubstr("RunAtLoad  true\n")));

  const ProcessId first = agent();
  const auto removed = root_.control({"jobs", "remove", "com.example.agent"});
  EXPECT_EQ(removed.status, exited(0)) << removed.errors;
  EXPECT_EQ(removed.output, "com.example.agent is removed.\n");
  EXPECT_EQ(removed.errors, "");
  EXPECT_FALSE(isRunning(first));
  EXPECT_EQ(root_.control({"jobs", "list"}).output, "No jobs.\n");
}

TEST_F(JobsControlTest, TheQuickProgramShowsWhatTheWholeToolShows) {
  submitAgent();
  const std::string whole = root_.controlProgram() + "-full";
  const auto outputOf = [&](const std::string& program, const std::vector<std::string>& options) {
    std::vector<std::string> arguments{program, "jobs", "show", "com.example.agent"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ChildProgram shown(arguments, {});
    EXPECT_EQ(shown.waitForExit(), exited(0)) << shown.errors();
    // The use of processor and memory may change between the two.
    const std::regex usage("[0-9]+ process[^\\n]*|\"(cpuSeconds|memoryBytes)\": [^,\\n]*");
    return std::regex_replace(shown.restOfOutput(), usage, "");
  };
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{}, {"--json"}, {"--root", root_.folder().path()}}) {
    const std::string expected = outputOf(whole, options);
    EXPECT_THAT(expected, HasSubstr(root_.program()));
    // The quick program must not need the whole one.
    std::filesystem::rename(whole, whole + "-away");
    EXPECT_EQ(outputOf(root_.controlProgram(), options), expected);
    std::filesystem::rename(whole + "-away", whole);
  }
}

TEST_F(JobsControlTest, AJobsTreeIsCounted) {
  const auto platform = root_.control({"platform", "--json"});
  if (::geteuid() != 0 || platform.output.find("\"controlGroups\": null") != std::string::npos) {
    GTEST_SKIP() << "the job host can't make control groups here";
  }
  submitAgent();
  EXPECT_THAT(root_.control({"jobs", "show", "com.example.agent"}).output,
              HasSubstr("\n1 process, CPU time "));
  EXPECT_THAT(root_.control({"jobs", "show", "com.example.agent", "--json"}).output,
              HasSubstr("\"processes\": 1,"));
}

TEST_F(JobsControlTest, ProgramsGetJson) {
  const auto submitted = root_.control({"jobs", "submit", agentFile(root_.program()), "--json"});
  EXPECT_THAT(submitted.output, HasSubstr("\"pid\": " + std::to_string(agent())));
  EXPECT_THAT(root_.control({"jobs", "list", "--json"}).output,
              AllOf(StartsWith("[\n"), HasSubstr("\"label\": \"com.example.agent\""),
                    HasSubstr("\"lastExit\": null"), HasSubstr("\"starts\": 1")));
  EXPECT_THAT(root_.control({"jobs", "show", "com.example.agent", "--json"}).output,
              HasSubstr("\"RunAtLoad\": true"));
  EXPECT_THAT(root_.control({"jobs", "remove", "com.example.agent", "--json"}).output,
              HasSubstr("\"removed\": true"));
}

TEST_F(JobsControlTest, TheLastExitIsReportedInWords) {
  submitAgent();
  killAndAwait(agent());
  EXPECT_THAT(root_.control({"jobs", "list"}).output,
              ContainsRegex("com\\.example\\.agent +- +1 +1  killed by SIGKILL\n"));
  EXPECT_THAT(root_.control({"jobs", "show", "com.example.agent"}).output,
              ContainsRegex(": 1 starts, 1 ends, 1 crashes\\.\n.*: killed by SIGKILL\n"));
}

TEST_F(JobsControlTest, AFileThatIsNoPropertyListIsRejectedWithThePlace) {
  const auto submitted = root_.control(
      {"jobs", "submit", root_.folder().write("job.plist", "<plist version=\"1.0\">\n<dict>")});
  EXPECT_EQ(submitted.status, exited(kFailed));
  EXPECT_THAT(submitted.errors, HasSubstr(root_.folder().path("job.plist") + ":2:"));
  EXPECT_EQ(root_.control({"jobs", "submit", "/nowhere.plist"}).status, exited(kFailed));
}

TEST_F(JobsControlTest, AnInvalidJobIsRejectedWithLabelKeyAndExpectation) {
  const auto submitted =
      root_.control({"jobs", "submit",
                     jobFile("<key>Label</key><string>com.example.agent</string><key>Program</key>"
                             "<string>agent</string>")});
  EXPECT_EQ(submitted.status, exited(kFailed));
  EXPECT_THAT(submitted.errors,
              HasSubstr("job \"com.example.agent\": key \"Program\": expected an absolute path"));
  const auto timed = root_.control(
      {"jobs", "submit",
       jobFile("<key>Label</key><string>com.example.agent</string><key>Program</key>"
               "<string>/bin/true</string><key>StartInterval</key><integer>60</integer>")});
  EXPECT_EQ(timed.status, exited(kFailed));
  EXPECT_THAT(timed.errors, HasSubstr("this host starts no job by the clock"));
}

TEST_F(JobsControlTest, AProgramThatCannotBeExecutedIsAnErrorWithTheReason) {
  const auto submitted = root_.control({"jobs", "submit", agentFile(root_.unstartableProgram())});
  EXPECT_EQ(submitted.status, exited(kFailed));
  EXPECT_THAT(submitted.errors,
              AllOf(HasSubstr(root_.unstartableProgram()), HasSubstr("Permission denied")));
}

TEST_F(JobsControlTest, AnUnknownLabelHasItsOwnExitStatus) {
  for (const char* command : {"show", "remove"}) {
    const auto finished = root_.control({"jobs", command, "com.example.other"});
    EXPECT_EQ(finished.status, exited(kNoSuchJob)) << command;
    EXPECT_THAT(finished.errors, AllOf(HasSubstr("com.example.other"),
                                       HasSubstr("\"servicemanagerctl jobs list\"")));
  }
}

TEST_F(JobsControlTest, WithoutAHostTheToolSaysHowToStartIt) {
  root_.killHost();
  const std::string file = agentFile(root_.program());
  for (const std::vector<std::string>& command : {std::vector<std::string>{"jobs", "list"},
                                                  {"jobs", "show", "com.example.agent"},
                                                  {"jobs", "remove", "com.example.agent"},
                                                  {"jobs", "submit", file}}) {
    const auto finished = root_.control(command);
    EXPECT_EQ(finished.status, exited(kNoHost)) << command[1];
    EXPECT_THAT(finished.errors, HasSubstr("Start it with \"" + root_.hostProgram() + "\""));
  }
}

TEST_F(JobsControlTest, AHungHostIsNotReportedAsMissing) {
  root_.stopHost();
  const auto listed = root_.control({"jobs", "list"});
  root_.continueHost();
  EXPECT_EQ(listed.status, exited(kFailed)) << listed.errors;
  EXPECT_THAT(listed.errors, HasSubstr("is there, but does not answer"));
  EXPECT_THAT(listed.errors, testing::Not(HasSubstr("is it running?")));
}

TEST_F(JobsControlTest, TheNextHostStillHasTheJob) {
  submitAgent();
  const ProcessId first = agent();
  root_.killHost();
  root_.startHost();
  EXPECT_EQ(agent(), first);
}

TEST_F(JobsControlTest, ALongRemovalIsAnnounced) {
  const std::string file =
      jobFile("<key>Label</key><string>com.example.agent</string><key>Program</key><string>" +
              root_.stubbornProgram() +
              "</string><key>KeepAlive</key><true/><key>StandardOutPath</key><string>" +
              root_.outputPath() + "</string>");
  EXPECT_EQ(root_.control({"jobs", "submit", file}).status, exited(0));
  EXPECT_EQ(root_.nextOutput(), "ready");
  const ProcessId process = agent();
  ChildProgram removal({root_.controlProgram(), "jobs", "remove", "com.example.agent"}, {});
  EXPECT_EQ(removal.nextErrorLine(),
            "Waiting for com.example.agent to end, 1 s so far (killed after 20 s)");
  EXPECT_TRUE(isRunning(process));
  killAndAwait(process);
  EXPECT_EQ(removal.waitForExit(), exited(0));
  EXPECT_EQ(removal.restOfOutput(), "com.example.agent is removed.\n");
}

TEST_F(JobsControlTest, AUsageErrorHasItsOwnExitStatus) {
  EXPECT_EQ(root_.control({"jobs"}).status, exited(kNotUnderstood));
  EXPECT_EQ(root_.control({"jobs", "show"}).status, exited(kNotUnderstood));
  EXPECT_EQ(root_.control({"jobs", "start", "com.example.agent"}).status, exited(kNotUnderstood));
}

// A user who may enter the root, but is neither root nor the host's user.
class OtherUserTest : public JobsControlTest {
 protected:
  OtherUserTest() {
    std::filesystem::permissions(root_.folder().path(), std::filesystem::perms(0755));
  }

  JobHostRoot::Finished listAsNobody() {
    ChildProgram program({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                          root_.controlProgram(), "jobs", "list"},
                         {});
    const ExitStatus status = program.waitForExit();
    std::string output = program.restOfOutput();
    return {status, std::move(output), program.errors()};
  }
};

TEST_F(OtherUserTest, TheSocketKeepsOthersOut) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  const auto listed = listAsNobody();
  EXPECT_EQ(listed.status, exited(kNotPermitted)) << listed.errors;
  EXPECT_THAT(listed.errors, AllOf(HasSubstr("Permission denied"), HasSubstr("ask as root")));
}

TEST_F(OtherUserTest, TheHostRefusesOthersEvenIfTheSocketAdmitsThem) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
  std::filesystem::permissions(root_.folder().path("run/vantor/launchd"),
                               std::filesystem::perms(0666));
  const auto listed = listAsNobody();
  EXPECT_EQ(listed.status, exited(kNotPermitted)) << listed.errors;
  EXPECT_THAT(listed.errors, HasSubstr("only root and user 0 may use the jobs of this host"));
}

}  // namespace
}  // namespace platform
