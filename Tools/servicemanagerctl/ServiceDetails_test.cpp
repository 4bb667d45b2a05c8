#include "Tools/servicemanagerctl/ServiceDetails.h"

#include <chrono>
#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/JobTree.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

constexpr WallTime kDetailsNow{1'000'000'000s};

Value factsWithJob(const char* reason, Dictionary job) {
  const JobHistory history{
      .since = kDetailsNow - 1h,
      .starts = 3,
      .ends = 2,
      .crashes = 2,
      .lastEnds = {{.at = kDetailsNow - 60s, .waitStatus = 3 << 8, .ran = 2s},
                   {.at = kDetailsNow - 1s, .waitStatus = SIGSEGV | 0x80, .ran = 3s}}};
  job.set("History", valueOfHistory(history, JobHistoryDetail::kCountsAndEnds));
  return Dictionary{{kFactLabel, "agent"},      {kFactIsOfProduct, true},
                    {kFactType, "CoreService"}, {kFactProgram, "/opt/agent"},
                    {kFactReason, reason},      {kFactJob, std::move(job)}};
}

TEST(ServiceDetailsTest, ARunningServiceHasItsProcessAndItsTree) {
  const Value tree = valueOfTree({.processes = 2, .cpuTime = 1500ms, .memoryBytes = 4096});
  const Value facts = factsWithJob("core", {{"PID", 7}, {"Tree", tree}});
  const std::string text = detailsAsText(facts, kDetailsNow - 90s, kDetailsNow, Reader::kOther);
  EXPECT_THAT(text, HasSubstr("agent runs as process 7, because every core service"));
  EXPECT_THAT(text, HasSubstr("  process     7, since 90 s (2001-09-09T01:45:10Z)\n"));
  EXPECT_THAT(text, HasSubstr("  uses        2 processes, CPU time 1.50 s, memory 4 KiB\n"));
  EXPECT_THAT(text, Not(HasSubstr("next start")));
  const auto json = detailsAsJson(facts, kDetailsNow - 90s, kDetailsNow);
  EXPECT_EQ(json["pid"], 7);
  EXPECT_EQ(json["since"], "2001-09-09T01:45:10Z");
  EXPECT_EQ(json["tree"]["processes"], 2);
  EXPECT_TRUE(json["nextStart"].is_null());
}

TEST(ServiceDetailsTest, ACrashLoopHasItsEndsAndItsNextStart) {
  const Value facts = factsWithJob("ended", {{"LastExitStatus", SIGSEGV | 0x80}});
  const std::string text = detailsAsText(facts, std::nullopt, kDetailsNow, Reader::kOther);
  EXPECT_THAT(text, HasSubstr("  process     none\n"));
  EXPECT_THAT(text, HasSubstr("  next start  in 6 s, 2001-09-09T01:46:46Z\n"));
  EXPECT_THAT(text, HasSubstr("3 starts, 2 ends, 2 crashes.\n"));
  EXPECT_THAT(text, HasSubstr("after 2.0 s: exited with 3\n"));
  EXPECT_THAT(text, HasSubstr("after 3.0 s: killed by SIGSEGV, core dumped\n"));
  const auto json = detailsAsJson(facts, std::nullopt, kDetailsNow);
  EXPECT_EQ(json["nextStartInSeconds"], 6.0);
  EXPECT_EQ(json["history"]["lastEnds"].size(), 2u);
  EXPECT_EQ(json["history"]["lastEnds"][1]["exit"]["dumpedCore"], true);
}

TEST(ServiceDetailsTest, AServiceThatIsNotToRunHasNoNextStart) {
  const Value facts = factsWithJob("noMatch", {});
  EXPECT_THAT(detailsAsText(facts, std::nullopt, kDetailsNow, Reader::kOther),
              Not(HasSubstr("next start")));
  EXPECT_TRUE(detailsAsJson(facts, std::nullopt, kDetailsNow)["nextStart"].is_null());
}

TEST(ServiceDetailsTest, NoTextSteersATerminal) {
  const Value facts = Dictionary{{kFactLabel, "\033[2J"},
                                 {kFactIsOfProduct, true},
                                 {kFactProgram, "\033[2J"},
                                 {kFactProgramFault, "\033[2J"},
                                 {kFactReason, "\033[2J"}};
  EXPECT_THAT(detailsAsText(facts, std::nullopt, kDetailsNow, Reader::kOther),
              Not(HasSubstr("\033")));
}

}  // namespace
