#include "Tools/servicemanagerctl/JobsReport.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Jobs/Jobs.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr int kCoreDumped = 0x80;

std::string wordsFor(Dictionary state) {
  return inWords(jobState("a", Value(std::move(state))).lastExit);
}

const WallTime kTime = std::chrono::sys_days(std::chrono::year(2026) / 1 / 2);
constexpr auto kCounts = JobHistoryDetail::kCounts;

// The history of a job that has crashed twice.
JobHistory history() {
  JobHistory history;
  history.since = kTime;
  history.starts = 4;
  history.add({kTime + 1min, std::nullopt, 59s}, false);
  history.add({kTime + 2min, 3 << 8, 60s}, false);
  history.add({kTime + 3min, SIGKILL, 1250ms}, false);
  return history;
}

std::vector<JobState> twoJobs() {
  return jobStates({{"com.example.longer.name", Dictionary{{"PID", 1234567}}},
                    {"agent", Dictionary{{"LastExitStatus", SIGKILL},
                                         {"History", valueOfHistory(history(), kCounts)}}}});
}

TEST(JobsReportTest, AnEndIsShownInWords) {
  EXPECT_EQ(wordsFor({}), "-");
  EXPECT_EQ(wordsFor({{"LastExitStatusUnknown", true}}), "unknown");
  EXPECT_EQ(wordsFor({{"LastExitStatus", 0}}), "succeeded");
  EXPECT_EQ(wordsFor({{"LastExitStatus", 3 << 8}}), "exited with 3");
  EXPECT_EQ(wordsFor({{"LastExitStatus", SIGKILL}}), "killed by SIGKILL");
  EXPECT_EQ(wordsFor({{"LastExitStatus", SIGSEGV | kCoreDumped}}),
            "killed by SIGSEGV, core dumped");
  EXPECT_EQ(wordsFor({{"LastExitStatus", SIGRTMIN + 3}}),
            "killed by signal " + std::to_string(SIGRTMIN + 3));
}

TEST(JobsReportTest, OnlyAPositiveNumberIsAProcess) {
  EXPECT_EQ(jobState("a", Dictionary{{"PID", 7}}).process, 7);
  for (const Value& none : {Value(0), Value(-1), Value("7")}) {
    EXPECT_EQ(jobState("a", Dictionary{{"PID", none}}).process, std::nullopt);
  }
}

TEST(JobsReportTest, TheTableIsAlignedAndSorted) {
  EXPECT_EQ(asTable(twoJobs(), Reader::kOther),
            "LABEL                        PID  STARTS  CRASHES  LAST EXIT\n"
            "agent                          -       4        2  killed by SIGKILL\n"
            "com.example.longer.name  1234567       -        -  -\n");
}

TEST(JobsReportTest, ATableWithoutJobsSaysSo) {
  EXPECT_EQ(asTable(std::vector<JobState>{}, Reader::kTerminal), "No jobs.\n");
}

TEST(JobsReportTest, OnATerminalRunningAndFailedJobsAreColoured) {
  EXPECT_THAT(asTable(twoJobs(), Reader::kTerminal),
              AllOf(HasSubstr("\033[31mkilled by SIGKILL\033[0m"),
                    HasSubstr("\033[32m1234567\033[0m"), HasSubstr("\033[1mLABEL")));
}

TEST(JobsReportTest, ProgramsGetNumbers) {
  const auto jobs = twoJobs();
  EXPECT_EQ(asJson(jobs[0]).dump(),
            R"({"label":"agent","pid":null,"lastExit":{"kind":"signalled","signal":9,)"
            R"("name":"SIGKILL","dumpedCore":false},"history":{"since":"2026-01-02T00:00:00Z",)"
            R"("starts":4,"ends":3,"crashes":2}})");
  EXPECT_EQ(asJson(jobs[1]).dump(),
            R"({"label":"com.example.longer.name","pid":1234567,"lastExit":null,"history":null})");
  EXPECT_EQ(asJson(jobState("a", Dictionary{{"LastExitStatus", 3 << 8}}))["lastExit"].dump(),
            R"({"kind":"exited","code":3})");
  EXPECT_EQ(asJson(jobState("a", Dictionary{{"LastExitStatusUnknown", true}}))["lastExit"].dump(),
            R"({"kind":"unknown"})");
}

TEST(JobsReportTest, AJobIsShownWithItsDictionary) {
  const Value dictionary =
      Dictionary{{"Label", "agent"},  {"ProgramArguments", Array{"a b", "\033[2J"}},
                 {"KeepAlive", true}, {"Key", Data{0xff}},
                 {"PID", 12},         {"LastExitStatus", 0}};
  const JobState job = jobState("agent", dictionary);
  EXPECT_EQ(asText(job, dictionary, Reader::kOther),
            "LABEL      PID  STARTS  CRASHES  LAST EXIT\n"
            "agent       12       -        -  succeeded\n"
            "\n"
            "Label             \"agent\"\n"
            "ProgramArguments  [\"a b\",\"\\u001b[2J\"]\n"
            "KeepAlive         true\n"
            "Key               \"/w==\"\n");
  const auto json = asJson(job, dictionary);
  EXPECT_EQ(json["pid"], 12);
  EXPECT_EQ(json["dictionary"]["KeepAlive"], true);
  EXPECT_FALSE(json["dictionary"].contains("PID"));
  EXPECT_FALSE(json["dictionary"].contains("LastExitStatus"));
}

TEST(JobsReportTest, TheLastEndsOfAJobAreShown) {
  const Value dictionary = Dictionary{
      {"Label", "agent"}, {"History", valueOfHistory(history(), JobHistoryDetail::kCountsAndEnds)}};
  const JobState job = jobState("agent", dictionary);
  EXPECT_EQ(asText(job, dictionary, Reader::kOther),
            "LABEL      PID  STARTS  CRASHES  LAST EXIT\n"
            "agent        -       4        2  -\n"
            "\n"
            "Since 2026-01-02T00:00:00Z: 4 starts, 3 ends, 2 crashes.\n"
            "2026-01-02T00:01:00Z  after 59.0 s: unknown\n"
            "2026-01-02T00:02:00Z  after 60.0 s: exited with 3\n"
            "2026-01-02T00:03:00Z  after 1.2 s: killed by SIGKILL\n"
            "\n"
            "Label    \"agent\"\n");
  const auto ends = asJson(job, dictionary)["history"]["lastEnds"];
  ASSERT_EQ(ends.size(), 3u);
  EXPECT_EQ(ends[0].dump(),
            R"({"time":"2026-01-02T00:01:00Z","ranSeconds":59.0,"exit":{"kind":"unknown"}})");
  EXPECT_EQ(ends[1]["exit"]["code"], 3);
}

TEST(JobsReportTest, ControlCharactersOfKeysAreEscaped) {
  const Value dictionary = Dictionary{{"\033[2J", "\n"}};
  EXPECT_THAT(asText(jobState("a", dictionary), dictionary, Reader::kOther),
              AllOf(Not(HasSubstr("\033")), HasSubstr("\\u001b[2J  \"\\n\"\n")));
}

TEST(JobsReportTest, ATreeIsShownInWords) {
  const auto words = [](const JobTree& tree) { return asText(tree); };
  EXPECT_EQ(words({1, 1500ms, std::nullopt}), "1 process, CPU time 1.50 s.\n");
  EXPECT_EQ(words({3, 3h + 4min + 5s, 3'670'016}),
            "3 processes, CPU time 3:04:05, memory 3.5 MiB.\n");
  EXPECT_EQ(words({0, 0s, 524'288}), "0 processes, CPU time 0.00 s, memory 512 KiB.\n");
}

TEST(JobsReportTest, AShownJobHasItsTree) {
  const Value copy = Dictionary{{"PID", 12}, {kJobTreeKey, valueOfTree({2, 1s, 4096})}};
  const JobState job = jobState("a", copy);
  EXPECT_THAT(
      asText(job, copy, Reader::kOther),
      AllOf(HasSubstr("\n2 processes, CPU time 1.00 s, memory 4 KiB.\n"), Not(HasSubstr("Tree"))));
  EXPECT_EQ(asJson(job, copy)["tree"].dump(),
            R"({"processes":2,"cpuSeconds":1.0,"memoryBytes":4096})");
  EXPECT_FALSE(asJson(job, copy)["dictionary"].contains(kJobTreeKey));
}

TEST(JobsReportTest, AJobThatWaitsForAVerificationSaysSo) {
  const Value job = Dictionary{{"Label", "agent"}, {"ProgramHasChanged", true}};
  EXPECT_THAT(asText(jobState("agent", job), job, Reader::kOther),
              testing::HasSubstr("ProgramHasChanged  true"));
  const auto json = asJson(jobState("agent", job), job);
  EXPECT_EQ(json["programHasChanged"], true);
  EXPECT_FALSE(json["dictionary"].contains("ProgramHasChanged"));
}

TEST(JobsReportTest, ASubmittedJobsFateIsASentence) {
  EXPECT_EQ(asSentence(jobState("agent", Dictionary{{"PID", 12}})), "agent runs as process 12.\n");
  EXPECT_EQ(asSentence(jobState("agent", Dictionary{{"LastExitStatus", 9}})),
            "agent is loaded and has no process now; its last exit: killed by SIGKILL.\n");
}

TEST(JobsReportTest, AnErrorGivesAdviceAndHasAStatus) {
  const auto error = [](LaunchdError code) {
    return NSError{kCFErrorDomainLaunchd, static_cast<int>(code), "text"};
  };
  const auto advice = [&](LaunchdError code) {
    return asAdvice(error(code), "/opt/jobhost", 1000);
  };
  EXPECT_EQ(advice(LaunchdError::kUnavailable),
            "text; is it running? Start it with \"/opt/jobhost\"");
  EXPECT_EQ(advice(LaunchdError::kNotAuthorized),
            "text; ask as root, or as the user whom the job host runs under");
  EXPECT_EQ(asAdvice(error(LaunchdError::kNotAuthorized), "/opt/jobhost", 0),
            "text; see who started this job host: it may be another program");
  EXPECT_EQ(advice(LaunchdError::kNoSuchJob),
            "text; \"servicemanagerctl jobs list\" tells which there are");
  EXPECT_EQ(advice(LaunchdError::kInvalidJob), "text");
  EXPECT_EQ(exitStatusOf(error(LaunchdError::kInternal)), 1);
  EXPECT_EQ(exitStatusOf(error(LaunchdError::kInvalidJob)), 1);
  EXPECT_EQ(exitStatusOf(error(LaunchdError::kNoSuchJob)), 3);
  EXPECT_EQ(exitStatusOf(error(LaunchdError::kNotAuthorized)), 4);
  EXPECT_EQ(exitStatusOf(error(LaunchdError::kUnavailable)), 5);
}

}  // namespace
