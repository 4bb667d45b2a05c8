// The answers of the operator's server, which change nothing.

#include <chrono>
#include <optional>
#include <utility>

#include "ServiceManager/ServiceManager/Operator_fixture.h"
#include "ServiceManager/Supervision/HealthRecord.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::IsEmpty;

class OperatorTest : public OperatorFixture {};

TEST_F(OperatorTest, TheServerIsThereWhenTheStartIsAnnounced) {
  bool wasThere = true;
  const auto observation = center_->addObserver(
      kDidStart, std::nullopt, [&](const DistributedNotification&) { wasThere = false; });
  start();
  EXPECT_FALSE(wasThere);
  EXPECT_EQ(ask("overview")[kFactOperatingMode], Value(2));
  manager_.reset();
  loop_.runReady();
  EXPECT_EQ(ask("overview"), Value());
}

TEST_F(OperatorTest, AnIdleDaemonSaysWhyAndHasNoServices) {
  installProduct("unknown");
  start();
  loop_.runReady();
  const Value overview = ask("overview");
  EXPECT_EQ(overview[kFactIdleReason], Value("Unable to resolve GUID"));
  ASSERT_TRUE(overview[kFactServices].dictionary());
  EXPECT_THAT(*overview[kFactServices].dictionary(), IsEmpty());
  EXPECT_EQ(ask("factsOfService:", {kHelper}), Value());
}

TEST_F(OperatorTest, AFailureIsAnnouncedOnceItsReasonCanBeAskedFor) {
  installProduct("unknown");
  operatorsWork_.emplace();
  start();
  EXPECT_THAT(announcements_, IsEmpty());
  auto works = *std::exchange(operatorsWork_, std::nullopt);
  for (auto& work : works) work();
  loop_.runReady();
  ASSERT_EQ(announcements_.size(), 1u);
  EXPECT_EQ(announcements_.front().name, kDidStartError);
  EXPECT_EQ(ask("overview")[kFactIdleReason], Value("Unable to resolve GUID"));
}

TEST_F(OperatorTest, AStrangerIsRefused) {
  startAll();
  FakeSystemInformation otherBoot;
  otherBoot.setBootTime(FakeSystemInformation::kBootTime + 1);
  VantorDistantObject stranger(
      {loop_, operator_.connections, *otherCenter_, operator_.center, protocols_, otherBoot},
      kServer, kORBServiceManagerOperatorProtocol, std::nullopt);
  EXPECT_EQ(stranger.sendMessage("overview"), Value());
  EXPECT_TRUE(stranger.recentException());
}

TEST_F(OperatorTest, TheOverviewHasModeTimersAndMarks) {
  startAll();
  manager().stopServices({kHelper});
  loop_.runReady();
  const Value overview = ask("overview");
  EXPECT_EQ(overview[kFactOperatingMode], Value(0));
  EXPECT_EQ(overview[kFactProduct], Value(kProduct));
  EXPECT_EQ(overview[kFactPrimary], Value(kPrimary));
  EXPECT_EQ(overview[kFactServices],
            Value(Dictionary{{kPrimary, Dictionary{{kFactType, "CoreService"},
                                                   {kFactIsMonitored, true},
                                                   {kFactIsStopped, false}}},
                             {kAgent, Dictionary{{kFactType, "FeatureService"},
                                                 {kFactIsMonitored, true},
                                                 {kFactIsStopped, false}}},
                             {kHelper, Dictionary{{kFactType, "CoreService"},
                                                  {kFactIsMonitored, false},
                                                  {kFactIsStopped, true}}}}));
  EXPECT_EQ(overview[kFactOtherServices],
            Value(Dictionary{{kForeign, Array{"kKLXInstallTypePersonalID"}}}));
  EXPECT_EQ(overview[kFactWatchDogIn], Value(899.0));
  EXPECT_EQ(overview[kFactRetryIn], Value());
}

TEST_F(OperatorTest, TheCataloguesExtensionsAreReported) {
  Dictionary all = catalogue({{kPrimary, entry("configd", {{"KernelExtensions", Array{"net"}}})}});
  all.set("KernelExtensions",
          Dictionary{{"net", Dictionary{{"Identifier", "com.example.absent"}}}});
  install(all);
  start();
  EXPECT_EQ(
      ask("extensions"),
      Value(Dictionary{{"net", Dictionary{{kFactKextIdentifier, "com.example.absent"},
                                          {kFactKextFault, "com.example.absent: no such extension"},
                                          {kFactKextIsLoaded, false},
                                          {kFactKextIsConnected, false},
                                          {kFactKextIsConfigured, false},
                                          {kFactKextServices, Array{kPrimary}}}}}));
}

TEST_F(OperatorTest, TimersAreReportedByTheirRemainingTime) {
  startAll();
  post("KLXGlobalSettingsDidChangeNotification");
  loop_.advanceBy(500ms);
  EXPECT_EQ(ask("overview")[kFactSettingsEvaluationIn], Value(1.5));
  EXPECT_EQ(ask("overview")[kFactSettingsChangesWait], Value());
  enterMode(ORBOperatingModeInstaller);
  loop_.advanceBy(2s);
  EXPECT_EQ(ask("overview")[kFactSettingsEvaluationIn], Value());
  EXPECT_EQ(ask("overview")[kFactSettingsChangesWait], Value(true));
  loop_.advanceBy(900s - 3500ms);
  EXPECT_EQ(ask("overview")[kFactWatchDogIn], Value(900.0));
}

TEST_F(OperatorTest, AServicesFactsCoverItsEvaluation) {
  startAll();
  const Value facts = factsOf(kAgent);
  EXPECT_EQ(facts[kFactLabel], Value(kAgent));
  EXPECT_EQ(facts[kFactIsOfProduct], Value(true));
  EXPECT_EQ(facts[kFactProducts], Value(Array{kProduct, kProductWithHealth}));
  EXPECT_EQ(facts[kFactIsPrimaryStopped], Value(false));
  EXPECT_EQ(facts[kFactProgram], Value("/opt/app/agent"));
  EXPECT_EQ(facts[kFactProgramExists], Value(true));
  EXPECT_EQ(facts[kFactProgramIsIntact], Value(true));
  EXPECT_EQ(facts[kFactProgramProtection], Value("re-check"));
  EXPECT_EQ(facts[kFactJob]["PID"], Value(process(kAgent)));
  EXPECT_EQ(facts[kFactJob]["History"]["Starts"], Value(1));
  EXPECT_EQ(facts[kFactHealth], Value());  // This product keeps none.
  EXPECT_EQ(facts[kFactIsSupported], Value(true));
  EXPECT_EQ(facts[kFactIsRetried], Value(false));
  EXPECT_EQ(facts[kFactReason], Value("switch"));
  const auto row = [](const char* source, const char* key, Value expected, Value current,
                      const char* outcome) {
    Dictionary facts{{kFactFeature, "web"}, {kFactKey, key}, {kFactExpected, std::move(expected)}};
    facts.set(kFactSource, source);
    if (!current.isNil()) facts.set(kFactCurrent, current);
    facts.set(kFactOutcome, outcome);
    return facts;
  };
  EXPECT_EQ(facts[kFactSwitches], Value(Array{row("common", "on", 1, 1, "matches"),
                                              row("common", "level", "high", "low", "differs"),
                                              row("common", "kind", 1, "1", "clashes"),
                                              row("common", "none", 1, {}, "absent"),
                                              row("unknown", "on", 1, {}, "noSource")}));
}

TEST_F(OperatorTest, APendingStopIsReported) {
  startAll();
  EXPECT_EQ(factsOf(kAgent)[kFactStopIn], Value());
  settings_["common"]["on"] = 0;
  evaluate();
  loop_.advanceBy(1s);
  evaluate();
  EXPECT_EQ(factsOf(kAgent)[kFactStopIn], Value(2.0));  // It stays as it was.
  EXPECT_EQ(ask("overview")[kFactServices][kAgent][kFactStopIn], Value(2.0));
  EXPECT_EQ(factsOf(kHelper)[kFactStopIn], Value());
  loop_.advanceBy(2s);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(factsOf(kAgent)[kFactStopIn], Value(3.0));  // Its end was an evaluation, too.
  loop_.advanceBy(3s);
  EXPECT_EQ(factsOf(kAgent)[kFactStopIn], Value());
}

TEST_F(OperatorTest, AHungJobHostChangesNoFact) {
  startAll();
  const Value running = factsOf(kAgent);
  jobs_.setHung(true);
  const Instant before = loop_.now();
  EXPECT_EQ(factsOf(kAgent), running);
  EXPECT_EQ(loop_.now(), before);
  exitWatcher_.endProcess(process(kAgent), {});
  loop_.runReady();
  const Value ended = factsOf(kAgent)[kFactJob];
  EXPECT_EQ(ended["PID"], Value());
  EXPECT_EQ(ended["LastExitStatusUnknown"], Value(true));
}

TEST_F(OperatorTest, WithoutAnAnswerOfTheJobHostAJobIsUnknown) {
  install(catalogue());
  jobs_.setHung(true);
  start();
  EXPECT_EQ(factsOf(kAgent)[kFactJob], Value());
  EXPECT_EQ(factsOf(kAgent)[kFactJobIsUnknown], Value(true));
  EXPECT_EQ(factsOf(kAgent)[kFactReason], Value("unknown"));
  jobs_.setHung(false);
  loop_.runReady();
  EXPECT_EQ(factsOf(kAgent)[kFactJobIsUnknown], Value());
}

TEST_F(OperatorTest, AJobIsKnownInEachMode) {
  startAll();
  enterMode(ORBOperatingModeInstaller);
  kill(kHelper);
  const Value job = factsOf(kHelper)[kFactJob];
  EXPECT_EQ(job["PID"], Value(process(kHelper)));
  EXPECT_EQ(job["LastExitStatus"], Value(9));
  EXPECT_EQ(job["History"]["Starts"], Value(2));
  // The successor is not watched, and has none itself.
  jobs_.setUnstartable(pathOf("helper"), "no such interpreter");
  kill(kHelper);
  factsOf(kHelper);  // The daemon asks the job host.
  EXPECT_EQ(factsOf(kHelper)[kFactJob]["PID"], Value());
}

TEST_F(OperatorTest, TheNextDaemonKnowsAllJobsAtOnce) {
  startAll();
  manager_.reset();
  client_.reset();
  stopConfigurationServer();
  start();  // It waits for the configuration server, and evaluates nothing.
  EXPECT_EQ(factsOf(kHelper)[kFactJob]["PID"], Value(process(kHelper)));
}

TEST_F(OperatorTest, TheJobsOfTheProductAreReportedByLabel) {
  startAll();
  kill(kHelper);
  manager().stopServices({kAgent});
  loop_.runReady();
  EXPECT_EQ(ask("awaitServices:", {Array{kAgent}}), Value(true));  // It publishes a picture.
  const Value jobs =
      ask("jobsOfServices:", {Array{kHelper, kAgent, kForeign, "com.example.nobody", 5}});
  EXPECT_EQ(jobs.dictionary()->size(), 2u);
  EXPECT_EQ(jobs[kAgent], Value(Dictionary()));
  const Value& helper = jobs[kHelper][kFactJob];
  EXPECT_EQ(helper["PID"], Value(process(kHelper)));
  EXPECT_EQ(helper["LastExitStatus"], Value(9));
  EXPECT_EQ(helper["History"]["Crashes"], Value(1));
  EXPECT_EQ(helper["History"]["LastEnds"].array()->size(), 1u);
  const Array many(201, Value(kHelper));
  EXPECT_TRUE(ask("jobsOfServices:", {many})[kHelper][kFactJob]["History"]["LastEnds"].isNil());
}

TEST_F(OperatorTest, TreesCostOneWaitForAnAbsentJobHost) {
  startAll();
  jobs_.setReachable(false);
  const Instant before = loop_.now();
  EXPECT_EQ(ask("treesOfServices:", {Array{kHelper, kAgent, kPrimary}}), Value(Dictionary()));
  EXPECT_EQ(loop_.now() - before, 5s);
}

TEST_F(OperatorTest, AServiceThatCannotStartIsReportedWithReasons) {
  startAll();
  kill(kHelper);
  damageProgram("helper");
  files_.remove(pathOf("agent"));
  evaluate();
  loop_.advanceBy(3s);
  const Value helper = factsOf(kHelper);
  EXPECT_EQ(helper[kFactProgramCheckedAgo], Value(3.0));
  EXPECT_EQ(helper[kFactProgramIsIntact], Value(false));
  EXPECT_EQ(helper[kFactProgramFault], Value("changed"));
  EXPECT_EQ(helper[kFactJob], Value());
  EXPECT_EQ(helper[kFactSwitches], Value());
  EXPECT_EQ(helper[kFactReason], Value("damaged"));
  const Value agent = factsOf(kAgent);
  EXPECT_EQ(agent[kFactProgramExists], Value(false));
  EXPECT_EQ(agent[kFactProgramIsIntact], Value());
}

TEST_F(OperatorTest, ANeededReleaseIsReportedBesideTheSystems) {
  system_.setRelease("14.0.0", {10, 10, 0});
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"MinimumOSVersion", "10.11"}}));
  services.set(kHelper, entry("helper", {{"MinimumOSVersion", 10.12}, {"Features", "none"}}));
  install(catalogue(services));
  start();
  const Value agent = factsOf(kAgent);
  EXPECT_EQ(agent[kFactMinimumOSVersion], Value("10.11"));
  EXPECT_EQ(agent[kFactNeededKernel], Value(15));
  EXPECT_EQ(agent[kFactKernel], Value(14));
  EXPECT_EQ(agent[kFactIsSupported], Value(false));
  EXPECT_EQ(agent[kFactReason], Value("unsupported"));
  const Value helper = factsOf(kHelper);
  EXPECT_EQ(helper[kFactMinimumOSVersion], Value(10.12));  // The tool says that it is no text.
  EXPECT_EQ(helper[kFactNeededKernel], Value());
  EXPECT_EQ(helper[kFactIsSupported], Value(false));
  EXPECT_EQ(helper[kFactFeaturesAreMalformed], Value(true));
  EXPECT_EQ(countInLog("Unknown OS version"), 0u);  // It was not evaluated for it.
}

TEST_F(OperatorTest, OtherProductsServicesAreReportedAsSuch) {
  startAll();
  const Value facts = factsOf(kForeign);
  EXPECT_EQ(facts[kFactIsOfProduct], Value(false));
  EXPECT_EQ(facts[kFactProducts], Value(Array{"kKLXInstallTypePersonalID"}));
  EXPECT_EQ(facts[kFactProduct], Value(kProduct));
  EXPECT_EQ(facts[kFactReason], Value("otherProduct"));
  EXPECT_EQ(factsOf("com.example.nobody"), Value());
}

TEST_F(OperatorTest, AskingMakesNoSettingsClientAndLogsNothing) {
  settings("common")["on"] = 1;
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"Features", Array{"web"}}}));
  Dictionary all = catalogue(services);
  all.set("Features",
          Dictionary{
              {"web",
               Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                      {"Switches", Dictionary{{"on", 1}}}},
                                           Dictionary{{"Switches", Dictionary{{"off", 1}}}}}}}}});
  install(all);
  start();  // Only the primary service has been evaluated.
  takeLog();
  const Value switches = factsOf(kAgent)[kFactSwitches];
  ASSERT_TRUE(switches.array() && switches.array()->size() == 2);
  EXPECT_EQ((*switches.array())[0][kFactOutcome], Value("notAsked"));
  EXPECT_EQ((*switches.array())[1][kFactOutcome], Value("noSource"));
  EXPECT_EQ(clientsMade_, 0);
  EXPECT_THAT(manager().askedSources(), IsEmpty());
  ask("overview");
  EXPECT_THAT(takeLog(), IsEmpty());
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(OperatorTest, ReadingTheHealthRecordClearsNoCounter) {
  installProduct(kHouseholdGuid);
  Dictionary services;
  for (const char* program : {"configd", "agent"}) {
    Dictionary service = entry(program);
    service.set("Products", Array{"kKLXInstallTypeHouseholdID"});
    services.set(program == std::string("agent") ? kAgent : kPrimary, service);
  }
  install(catalogue(services));
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  kill(kAgent);
  for (int i = 0; i < 2; ++i) {
    const Value health = ask("healthRecord");
    EXPECT_EQ(health[kHealthReadyToReport], Value(true));
    EXPECT_EQ(health[kHealthServices][kAgent][kHealthCrashes], Value(1));
    EXPECT_EQ(factsOf(kAgent)[kFactHealth][kHealthCrashes], Value(1));
  }
}

TEST_F(OperatorTest, AProductWithoutAHealthRecordHasNone) {
  startAll();
  EXPECT_EQ(ask("healthRecord"), Value());
  EXPECT_FALSE(client_->recentException());
}

TEST_F(OperatorTest, AnAnswerAboutBusyServicesWaitsForThem) {
  startAll();
  EXPECT_EQ(ask("awaitServices:", {Array{kAgent, kHelper, "com.example.unknown", 7}}), Value(true));
  jobs_.ignoreTermination(kAgent);
  manager().stopServices({kAgent, kHelper});
  int answers = 0;
  manager().whenSettled({kHelper}, [&] { ++answers; });
  manager().whenSettled({kAgent, kHelper}, [&] { ++answers; });
  loop_.runReady();
  EXPECT_EQ(answers, 1);
  loop_.advanceBy(20s);
  EXPECT_EQ(answers, 2);
}

TEST_F(OperatorTest, AWrongLabelOrMessageRaises) {
  startAll();
  for (const Value& argument : {Value(), Value(1), Value(Array{kAgent})}) {
    EXPECT_EQ(ask("factsOfService:", {argument}), Value());
    ASSERT_TRUE(client_->recentException());
    EXPECT_EQ(client_->recentException()->name, kNSInvalidArgumentException);
  }
  EXPECT_EQ(ask("jobsOfServices:", {kAgent}), Value());
  EXPECT_TRUE(client_->recentException());
  EXPECT_EQ(ask("awaitServices:", {kAgent}), Value());
  EXPECT_TRUE(client_->recentException());
  EXPECT_TRUE(isRunning(kAgent));
}

}  // namespace
