#include "ServiceManager/ServiceManager/OperatorReport.h"

#include <chrono>
#include <string>
#include <vector>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::IsEmpty;

// The report on a picture of collaborators of which no daemon takes care.
class OperatorReportTest : public SupervisionFixture, public KLXGlobalSettingsClientDelegate {
 protected:
  SettingsClientFactories factories_;
  SettingsSources sources_{factories_, *this};
  EvaluationTimers timers_{loop_};
  OperatorReport report_{{.runLoop = loop_,
                          .system = system_,
                          .extensions = extensionsPlatform_,
                          .jobs = jobs_,
                          .sources = sources_}};

  OperatorPicture picture() const {
    return {.taken = loop_.now(),
            .catalogue = std::make_shared<ServiceCatalogue>(catalogue_),
            .product = "product",
            .records = records_,
            .jobs = launchd_.known(),
            .programs = enforcement_.programFindings(),
            .timers = timers_.dueTimes(),
            .work = enforcement_.work(),
            .unchecked = rechecks_.waiting(),
            .extensionFailures = control_.failures()};
  }
};

TEST_F(OperatorReportTest, TheOverviewHasEachServiceWithItsMarks) {
  records_.trackServiceForUserClientShutdownRequest(kHelper, true);
  const Value overview = report_.overview(picture());
  EXPECT_EQ(overview[kFactProduct], Value("product"));
  EXPECT_EQ(overview[kFactPrimary], Value(kPrimary));
  EXPECT_EQ(overview[kFactServices].dictionary()->size(), 3u);
  EXPECT_EQ(overview[kFactServices][kHelper][kFactIsStopped], Value(true));
  EXPECT_EQ(overview[kFactServices][kAgent][kFactIsStopped], Value(false));
}

TEST_F(OperatorReportTest, TheOverviewSaysWhichProgramsCannotBeChecked) {
  rechecks_.couldNotCheck(kAgent);
  const Value services = report_.overview(picture())[kFactServices];
  EXPECT_EQ(services[kAgent][kFactProgramIsUnchecked], Value(true));
  EXPECT_EQ(services[kHelper][kFactProgramIsUnchecked], Value());
  // The report about one service has what the last check has found.
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactProgramIsUnchecked], Value());
}

TEST_F(OperatorReportTest, PagesHaveTheServicesInTheCataloguesOrder) {
  std::vector<std::string> labels;
  for (const std::size_t first : {0u, 2u, 4u}) {
    const Value page = report_.overview(picture(), {.first = first, .count = 2});
    EXPECT_EQ(page[kFactServiceCount], Value(3));
    EXPECT_EQ(page[kFactOtherServices].isNil(), first > 0);
    for (const auto& [label, facts] : *page[kFactServices].dictionary()) labels.push_back(label);
  }
  std::vector<std::string> all;
  for (const auto& [label, entry] : *catalogue_.services().dictionary()) all.push_back(label);
  EXPECT_EQ(labels, all);
}

TEST_F(OperatorReportTest, APageOfTheHealthRecordHasItsServicesAlone) {
  OperatorPicture picture = this->picture();
  EXPECT_TRUE(report_.healthRecord(picture, {}).isNil());
  Dictionary services;
  for (const char* label : {kPrimary, kAgent, kHelper}) services.set(label, label);
  picture.healthRecord = Dictionary{{"CrashLimit", 3}, {"Services", services}};
  const Value page = report_.healthRecord(picture, {.first = 1, .count = 1});
  const std::string& second = (picture.catalogue->services().dictionary()->begin() + 1)->first;
  EXPECT_EQ(page, Value(Dictionary{{"CrashLimit", 3},
                                   {"Services", Dictionary{{second, second}}},
                                   {kFactServiceCount, 3}}));
}

TEST_F(OperatorReportTest, EntriesAreThoseOfThisProductsServices) {
  const Value entries = report_.entriesOfServices(picture(), {kAgent, "com.example.unknown", 5});
  EXPECT_EQ(entries, Value(Dictionary{{kAgent, catalogue_.service(kAgent)}}));
}

TEST_F(OperatorReportTest, AnEmptyCatalogueHasNoService) {
  catalogue_ = {};
  EXPECT_THAT(*report_.overview(picture())[kFactServices].dictionary(), IsEmpty());
  EXPECT_TRUE(report_.factsOfService(picture(), kAgent).isNil());
  EXPECT_THAT(report_.extensions(picture()), IsEmpty());
}

TEST_F(OperatorReportTest, EachTimerIsReportedByItsRemainingTime) {
  timers_.startWatchDog([] {});
  timers_.startReevaluationTimer([] {});
  timers_.startSettingsChangeTimer([] {});
  loop_.advanceBy(500ms);
  const Value overview = report_.overview(picture());
  EXPECT_EQ(overview[kFactRetryIn], Value(19.5));
  EXPECT_EQ(overview[kFactSettingsEvaluationIn], Value(1.5));
  EXPECT_EQ(overview[kFactWatchDogIn], Value(899.5));
}

TEST_F(OperatorReportTest, TimersOfAnOldPictureGoOn) {
  timers_.startWatchDog([] {});
  timers_.startSettingsChangeTimer([] {});
  const OperatorPicture old = picture();
  loop_.sleepFor(1000s);
  const Value overview = report_.overview(old);
  EXPECT_EQ(overview[kFactSettingsEvaluationIn], Value(0.0));
  EXPECT_TRUE(overview[kFactSettingsChangesWait].isNil());
  EXPECT_EQ(overview[kFactWatchDogIn], Value(800.0));
}

TEST_F(OperatorReportTest, AServicesFactsFollowItsJob) {
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactReason], Value("unknown"));
  launchd_.refreshAll();
  loop_.runReady();
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactJob], Value());
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactReason], Value("notStarted"));
  enforcement_.enforceRunningForService(kAgent, nullptr);
  loop_.runReady();
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactJob]["PID"], Value(process(kAgent)));
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactReason], Value("core"));
}

TEST_F(OperatorReportTest, AReportMakesNoClientAndLogsNothing) {
  Dictionary all = catalogue(
      {{kPrimary, entry("configd")}, {kAgent, entry("agent", {{"Features", Array{"web"}}})}});
  const Dictionary config{{"Source", "common"}, {"Switches", Dictionary{{"on", 1}}}};
  all.set("Features", Dictionary{{"web", Dictionary{{"Config", Array{config}}}}});
  use(all);
  const Value facts = report_.factsOfService(picture(), kAgent);
  EXPECT_EQ((*facts[kFactSwitches].array())[0][kFactOutcome], Value(kOutcomeNotAsked));
  EXPECT_FALSE(sources_.configurationClients());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(OperatorReportTest, TheWorkOnAServiceIsReportedWithItsTime) {
  enforcement_.enforceRunningForService(kAgent, nullptr);
  loop_.runReady();
  jobs_.ignoreTermination(kAgent);
  EXPECT_TRUE(report_.factsOfService(picture(), kAgent)[kFactActivity].isNil());
  enforcement_.enforceShutdownForService(kAgent, {});
  loop_.advanceBy(3s);
  const Value facts = report_.factsOfService(picture(), kAgent);
  EXPECT_EQ(facts[kFactActivity], Value("isRemoved"));
  EXPECT_EQ(facts[kFactActivityFor], Value(3.0));
  const Value services = report_.overview(picture())[kFactServices];
  EXPECT_EQ(services[kAgent][kFactActivity], Value("isRemoved"));
  EXPECT_TRUE(services[kHelper][kFactActivity].isNil());
  loop_.advanceBy(17s);
  EXPECT_TRUE(report_.factsOfService(picture(), kAgent)[kFactActivity].isNil());
}

TEST_F(OperatorReportTest, OnlyLabelsOfThisProductsServicesHaveJobs) {
  launchd_.refreshAll();
  loop_.runReady();
  const Value jobs = report_.jobsOfServices(picture(), {kAgent, "com.example.unknown", 5, Value()});
  EXPECT_EQ(jobs, Value(Dictionary{{kAgent, Dictionary()}}));
}

TEST_F(OperatorReportTest, AHungJobHostDelaysNoReport) {
  for (const char* label : {kAgent, kHelper}) enforcement_.enforceRunningForService(label, nullptr);
  loop_.runReady();
  jobs_.setHung(true);
  const Instant before = loop_.now();
  EXPECT_EQ(report_.factsOfService(picture(), kAgent)[kFactReason], Value("core"));
  EXPECT_EQ(report_.jobsOfServices(picture(), {kHelper})[kHelper][kFactJob]["PID"],
            Value(process(kHelper)));
  EXPECT_EQ(loop_.now(), before);
}

TEST_F(OperatorReportTest, OnlyJobsWithAProcessAreAskedForTheirTrees) {
  enforcement_.enforceRunningForService(kAgent, nullptr);
  loop_.runReady();
  const int copies = jobs_.copies();
  // The fake host has no control groups.
  EXPECT_EQ(report_.treesOfServices(picture(), {kAgent, kHelper, 5}), Value(Dictionary()));
  EXPECT_EQ(jobs_.copies(), copies + 1);
}

}  // namespace
