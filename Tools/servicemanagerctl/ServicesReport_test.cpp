#include "Tools/servicemanagerctl/ServicesReport.h"

#include <chrono>
#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using testing::AllOf;
using testing::HasSubstr;
using Activity = ServiceState::Activity;
using Type = ServiceState::Type;

class ServicesReportTest : public testing::Test {
 protected:
  ServiceState state(const std::string& label, const Value& process = {},
                     const Value& lastExitStatus = {}) {
    Dictionary job;
    if (!process.isNil()) job.set("PID", process);
    if (!lastExitStatus.isNil()) job.set("LastExitStatus", lastExitStatus);
    return serviceState(label, catalogue_, Dictionary{{kFactJob, std::move(job)}}, system_);
  }
  ServiceState unknown(const std::string& label) {
    return serviceState(label, catalogue_, Dictionary{{kFactJobIsUnknown, true}}, system_);
  }
  std::vector<ServiceState> services() {
    return {state("agent", 4711), state("filter", {}, SIGKILL), state("modern"), state("scanner")};
  }

  FakeSystemInformation system_;  // of release 15, which is 10.11
  const Value catalogue_ = Dictionary{
      {"agent", Dictionary{{"MinimumOSVersion", "10.11"}}},
      {"scanner", Dictionary{}},
      {"filter", Dictionary{{"Features", Array{"Filter"}}}},
      {"modern", Dictionary{{"MinimumOSVersion", "10.99"}}},
  };
};

TEST_F(ServicesReportTest, AServicesTypeAndActivityFollowFromItsFacts) {
  EXPECT_EQ(state("agent", 4711).activity, Activity::kRunning);
  EXPECT_EQ(state("agent").activity, Activity::kStopped);
  EXPECT_EQ(state("agent", {}, 0).activity, Activity::kWaiting);
  EXPECT_EQ(state("modern").activity, Activity::kUnsupported);
  EXPECT_EQ(state("modern", 4711).activity, Activity::kRunning);
  EXPECT_EQ(state("agent").type, Type::kCore);
  EXPECT_EQ(state("filter").type, Type::kFeature);
  EXPECT_EQ(state("unknown"), (ServiceState{.job = jobState("unknown", {})}));
}

TEST_F(ServicesReportTest, AListedServiceFollowsFromTheOperatorsFacts) {
  const auto listed = [this](Dictionary facts, Dictionary jobFacts = {}) {
    return listedService("agent", Value(std::move(facts)), Value(std::move(jobFacts)), system_);
  };
  EXPECT_EQ(listed({{kFactType, "FeatureService"}}).type, Type::kFeature);
  EXPECT_EQ(listed({{kFactMinimumOSVersion, "10.99"}}).activity, Activity::kUnsupported);
  EXPECT_EQ(inWords(listed({{kFactMinimumOSVersion, 10.8}})), "needs 10.8, no text");
  EXPECT_EQ(inWords(listed({{kFactActivity, kActivityAwaitsProcess}})), "starting");
  const Dictionary failed{{kFactFailedExtensions, Array{"wfk"}}};
  EXPECT_EQ(inWords(listed(failed)), "no extension");
  EXPECT_EQ(asJson(listed(failed))["failedExtensions"], "wfk");
  EXPECT_EQ(inWords(listed({{kFactFailedExtensions, Array{"wfk"}}, {kFactIsStopped, true}})),
            "stopped");
  EXPECT_EQ(inWords(listed(failed, {{kFactJob, Dictionary{{"PID", 7}}}})), "running");
}

TEST_F(ServicesReportTest, AServiceWhoseProgramCannotBeCheckedIsUnchecked) {
  const Value facts = Dictionary{{kFactProgramIsUnchecked, true}};
  const ServiceState stopped = listedService("agent", facts, Dictionary(), system_);
  EXPECT_EQ(inWords(stopped), "unchecked");
  EXPECT_EQ(asJson(stopped)["state"], "unchecked");
  const ServiceState running =
      listedService("agent", facts, Dictionary{{kFactJob, Dictionary{{"PID", 7}}}}, system_);
  EXPECT_EQ(inWords(running), "running, unchecked");
  EXPECT_EQ(asJson(running)["state"], "running");
  EXPECT_EQ(asJson(running)["unchecked"], true);
}

TEST_F(ServicesReportTest, AServiceOfAHungJobHostIsUnknown) {
  for (const char* label : {"agent", "modern"}) {
    EXPECT_EQ(unknown(label).activity, Activity::kUnknown);
    EXPECT_EQ(inWords(unknown(label)), "unknown");
  }
  EXPECT_EQ(asSentence(unknown("agent")),
            "Whether agent runs is not known: the job host does not answer.\n");
  EXPECT_EQ(asJson(unknown("scanner")).dump(),
            R"({"label":"scanner","type":"core","state":"unknown","pid":null,"lastExit":null,)"
            R"("neededSystem":null})");
}

TEST_F(ServicesReportTest, AnUnknownLastEndIsAnEnd) {
  const Value facts = Dictionary{{kFactJob, Dictionary{{"LastExitStatusUnknown", true}}}};
  EXPECT_EQ(serviceState("agent", catalogue_, facts, system_).activity, Activity::kWaiting);
}

TEST_F(ServicesReportTest, CrashesAreToldWithTheLastExit) {
  const Dictionary history{{"Since", Date{0}}, {"Starts", 3}, {"Ends", 2}, {"Crashes", 1}};
  const Dictionary job{{"PID", 7}, {"LastExitStatus", SIGKILL}, {"History", history}};
  const ServiceState service =
      listedService("agent", Value(Dictionary()), Dictionary{{kFactJob, job}}, system_);
  EXPECT_EQ(crashesInWords(service.job), ", 1 crash in 3 starts");
  EXPECT_EQ(crashesInWords(state("agent", 7).job), "");
  EXPECT_EQ(asJson(service)["history"]["crashes"], 1);
}

TEST_F(ServicesReportTest, ProgramsGetWordsThatDoNotChange) {
  EXPECT_EQ(asJson(state("agent", 4711)).dump(),
            R"({"label":"agent","type":"core","state":"running","pid":4711,"lastExit":null,)"
            R"("neededSystem":"10.11"})");
  EXPECT_EQ(asJson(state("filter", {}, 3 << 8)).dump(),
            R"({"label":"filter","type":"feature","state":"waiting","pid":null,)"
            R"("lastExit":{"kind":"exited","code":3},"neededSystem":null})");
  EXPECT_EQ(asJson(services()).size(), 4u);
  EXPECT_EQ(asJson(std::vector<ServiceState>{}).dump(), "[]");
}

TEST_F(ServicesReportTest, TheReasonAndTheTimeAreAdded) {
  ServiceState service = state("agent");
  service.reason = "stopped";
  service.why = "stopped by hand";
  service.since = WallTime{std::chrono::seconds(0)};
  const auto json = asJson(service);
  EXPECT_EQ(json["reason"], "stopped");
  EXPECT_EQ(json["why"], "stopped by hand");
  EXPECT_EQ(json["since"], "1970-01-01T00:00:00Z");
}

TEST_F(ServicesReportTest, AServicesFateIsASentence) {
  EXPECT_EQ(asSentence(state("agent", 4711)), "agent runs as process 4711.\n");
  EXPECT_EQ(asSentence(state("agent")), "agent is stopped.\n");
  EXPECT_EQ(asSentence(state("modern")), "modern is not started here: it needs release 10.99.\n");
  EXPECT_EQ(asSentence(state("agent", {}, SIGTERM)),
            "agent has no process now and is to be started again; its last exit: killed by "
            "SIGTERM.\n");
}

}  // namespace
