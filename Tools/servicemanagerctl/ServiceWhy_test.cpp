#include "Tools/servicemanagerctl/ServiceWhy.h"

#include <chrono>
#include <csignal>

#include <gtest/gtest.h>

#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class ServiceWhyTest : public testing::Test {
 protected:
  // A service without a process, and with that reason.
  ServiceState down(const std::string& reason, Dictionary job = {}) {
    ServiceState service = listed({}, std::move(job));
    service.reason = reason;
    return service;
  }
  ServiceState listed(Dictionary facts, Dictionary job) {
    return listedService("agent", Value(std::move(facts)),
                         Dictionary{{kFactJob, Value(std::move(job))}}, system_);
  }
  std::string why(const ServiceState& service, const Value& reason = {}, const Value& facts = {}) {
    return whyInWords(service, facts, reason, kNow);
  }
  static Value row(const char* key, const char* outcome) {
    return Dictionary{{kFactSource, "common"}, {kFactKey, key}, {kFactOutcome, outcome}};
  }
  // A job whose process ran for 3 s and ended a second ago.
  static Dictionary endedJob(int status) {
    const JobHistory history{.since = kNow - 1h,
                             .starts = 5,
                             .ends = 5,
                             .crashes = 5,
                             .lastEnds = {{.at = kNow - 1s, .waitStatus = status, .ran = 3s}}};
    return {{"LastExitStatus", status},
            {"History", valueOfHistory(history, JobHistoryDetail::kCountsAndEnds)}};
  }

  static constexpr WallTime kNow{1'000'000'000s};
  FakeSystemInformation system_;
};

TEST_F(ServiceWhyTest, EachReasonHasItsOwnWords) {
  const std::vector<std::pair<std::string, std::string>> words{
      {"noJob", "the catalogue names no program"},
      {"stopped", "stopped by hand"},
      {"installer", "installer at work"},
      {"waiting", "configuration server not up"},
      {"primaryStopped", "primary service stopped by hand"},
      {"primaryOtherProduct", "primary service of another product"},
      {"noProgram", "program missing"},
      {"damaged", "program damaged or not signed"},
      {"unchecked", "program can't be checked now"},
      {"malformedFeatures", "its features are no list"},
      {"noSwitch", "no switch could ask for it"},
      {"notEvaluated", "its switches are not evaluated yet"},
      {"noMatch", "no switch asks for it"},
      {"notStarted", "was not started"},
      {"anotherWord", ""},
  };
  for (const auto& [reason, text] : words) EXPECT_EQ(why(down(reason)), text) << reason;
}

TEST_F(ServiceWhyTest, ASwitchThatIsOffIsNamed) {
  const Value off = Dictionary{{kFactSwitches, Array{row("WebFilterEnabled", kOutcomeDiffers)}}};
  EXPECT_EQ(why(down("noMatch"), off), "switch off: common/WebFilterEnabled");
  const Value three =
      Dictionary{{kFactSwitches, Array{row("a", kOutcomeDiffers), row("b", kOutcomeAbsent),
                                       row("c", kOutcomeDiffers)}}};
  EXPECT_EQ(why(down("noMatch"), three), "switch off: common/a and 1 more");
  const Value absent = Dictionary{{kFactSwitches, Array{row("b", kOutcomeAbsent)}}};
  EXPECT_EQ(why(down("noMatch"), absent), "switch not set: common/b");
  const Value silent = Dictionary{{kFactSwitches, Array{row("b", kOutcomeNoAnswer)}}};
  EXPECT_EQ(why(down("noAnswer"), silent), "no answer about common/b");
}

TEST_F(ServiceWhyTest, TheNextStartFollowsFromTheThrottle) {
  const ServiceState ended = down("ended", endedJob(SIGSEGV));
  EXPECT_EQ(why(ended), "restarts in 6 s: ran 3 s of 10, killed by SIGSEGV");
  EXPECT_EQ(nextStart(ended.job, {}), kNow + 6s);
  const Value minute = Dictionary{{kFactThrottle, 60}};
  EXPECT_EQ(why(ended, minute), "restarts in 56 s: ran 3 s of 60, killed by SIGSEGV");
  const Value none = Dictionary{{kFactThrottle, 0}};
  EXPECT_EQ(why(ended, none), "is to be restarted now: killed by SIGSEGV");
  EXPECT_EQ(why(down("ended", {{"LastExitStatus", 3 << 8}})), "ended: exited with 3");
  EXPECT_EQ(nextStart(down("ended").job, {}), std::nullopt);
}

TEST_F(ServiceWhyTest, ARunningServiceHasARemark) {
  const ServiceState running = listed({}, {{"PID", 7}});
  EXPECT_EQ(why(running), "");
  EXPECT_EQ(why(running, {}, Dictionary{{kFactStopIn, 2.6}}),
            "stops in 2.6 s: no switch asks for it");
  Dictionary job = endedJob(SIGKILL);
  job.set("PID", 7);
  EXPECT_EQ(why(listed({}, job)), "killed by SIGKILL, 5 crashes in 5 starts");
}

TEST_F(ServiceWhyTest, TheWorkOnAServiceComesFirst) {
  const ServiceState starting =
      listed({{kFactActivity, kActivityAwaitsProcess}, {kFactActivityFor, 3.0}}, {});
  EXPECT_EQ(why(starting), "its process is waited for, for 3.0 s");
  EXPECT_EQ(markOf(starting), ServiceMark::kChanging);
}

TEST_F(ServiceWhyTest, OnlyAServiceThatIsToRunHasFailed) {
  for (const char* reason : {"damaged", "noProgram", "notStarted", "extension", "unchecked",
                             "malformedFeatures", "noAnswer", "refused"})
    EXPECT_EQ(markOf(down(reason)), ServiceMark::kFailed) << reason;
  for (const char* reason : {"stopped", "installer", "noMatch", "noSwitch", "primaryStopped"})
    EXPECT_EQ(markOf(down(reason)), ServiceMark::kOff) << reason;
  EXPECT_EQ(markOf(down("waiting")), ServiceMark::kChanging);
  EXPECT_EQ(markOf(down("ended", endedJob(SIGSEGV))), ServiceMark::kFailed);
  EXPECT_EQ(markOf(down("ended", endedJob(0))), ServiceMark::kChanging);
  EXPECT_EQ(markOf(listed({}, {{"PID", 7}})), ServiceMark::kRunning);
  EXPECT_EQ(markOf(listed({{kFactMinimumOSVersion, "10.99"}}, {})), ServiceMark::kOff);
}

}  // namespace
