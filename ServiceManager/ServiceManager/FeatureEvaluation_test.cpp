#include "ServiceManager/ServiceManager/FeatureEvaluation.h"

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kFilter[] = "com.example.filter";

// The evaluation of features, beside a main thread that notes its decisions. Settings are answered
// when the test serves them.
class FeatureEvaluationTest : public testing::Test {
 protected:
  FeatureEvaluationTest() {
    for (const char* source : {"common", "update"}) {
      factories_.add(std::string(source) + "SettingsClientWithDelegate:",
                     [this, source](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                       auto client = std::make_unique<FakeSettingsClient>(settings_[source]);
                       client->isHung = &isHung_;
                       return client;
                     });
    }
    use(Array{"web", "mail"});
  }

  void use(Value features) {
    catalogue_ = ServiceCatalogue(Dictionary{
        {"Services", Dictionary{{kFilter, Dictionary{{"Features", std::move(features)}}}}},
        {"Features", Dictionary{{"web", feature("common", {{"web", 1}, {"strict", true}})},
                                {"mail", feature("update", {{"mail", "on"}})}}}});
  }
  static Dictionary feature(const char* source, Dictionary switches) {
    return {{"Config", Array{Dictionary{{"Source", source}, {"Switches", std::move(switches)}}}}};
  }

  void serveSettings() {
    for (auto* work : {&onWorker_, &onMain_}) {
      for (RunLoop::Callback& next : std::exchange(*work, {})) next();
    }
  }
  void evaluate() {
    features_.evaluate(kFilter);
    serveSettings();
  }
  std::vector<std::string> takeDecisions() { return std::exchange(decisions_, {}); }
  std::function<void(const std::string&)> note(const char* decision) {
    return [this, decision](const std::string& label) {
      EXPECT_EQ(label, kFilter);
      decisions_.emplace_back(decision);
    };
  }

  Logger2Lines lines_;
  VirtualRunLoop loop_;
  FakeSystemInformation system_;
  const ProtocolTable protocols_;
  FakeNotificationBus bus_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  ConnectedProgram daemon_{loop_, transport_,
                           [](std::string_view name) { return "/names/" + std::string(name); }};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(daemon_.log);
  std::map<std::string, std::map<std::string, Value>> settings_;
  bool isHung_ = false;
  SettingsClientFactories factories_;
  std::deque<RunLoop::Callback> onWorker_;
  std::deque<RunLoop::Callback> onMain_;
  const SettingsParts parts_{
      {loop_, daemon_.connections, *center_, daemon_.center, protocols_, system_}, factories_};
  SettingsQuestions questions_{
      {.worker = {[this](const std::string&, SettingsWorker::Work work) {
         onWorker_.push_back([this, work = std::move(work)]() mutable { work(parts_); });
       }},
       .onMain = [this](RunLoop::Callback call) { onMain_.push_back(std::move(call)); },
       .now = [this] { return loop_.now(); },
       .onRestart = [] {}}};
  EvaluationTimers timers_{loop_};
  ServiceCatalogue catalogue_;
  bool mayEvaluate_ = true;
  bool isInNormalMode_ = true;
  std::vector<std::string> decisions_;
  FeatureEvaluation features_{{.catalogue = catalogue_,
                               .settings = questions_,
                               .timers = timers_,
                               .mayEvaluate = [this](const std::string&) { return mayEvaluate_; },
                               .isInNormalMode = [this] { return isInNormalMode_; },
                               .run = note("run"),
                               .shutDown = note("shut down"),
                               .evaluateAgain = note("evaluate again"),
                               .onAnswer = [this] { decisions_.emplace_back("answer"); }}};
};

TEST_F(FeatureEvaluationTest, AMatchingSwitchRunsTheService) {
  settings_["common"] = {{"web", 1}, {"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  features_.evaluate(kFilter);
  EXPECT_TRUE(features_.isAsking());
  EXPECT_THAT(takeDecisions(), IsEmpty());
  serveSettings();
  EXPECT_FALSE(features_.isAsking());
  EXPECT_THAT(takeDecisions(), ElementsAre("run", "answer"));
  loop_.advanceBy(1h);
  EXPECT_THAT(takeDecisions(), IsEmpty());
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(FeatureEvaluationTest, EachMatchingSwitchRunsTheService) {
  settings_["common"] = {{"web", 1}, {"strict", true}};
  settings_["update"] = {{"mail", "on"}};
  evaluate();
  EXPECT_THAT(takeDecisions(), ElementsAre("run", "run", "run", "answer"));
}

TEST_F(FeatureEvaluationTest, WithoutAMatchTheServiceIsShutDownLater) {
  settings_["common"] = {{"web", 2}, {"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  evaluate();
  EXPECT_THAT(takeDecisions(), ElementsAre("answer"));
  loop_.advanceBy(EvaluationTimers::kFeatureShutdownDelay - 1ns);
  EXPECT_THAT(takeDecisions(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(takeDecisions(), ElementsAre("shut down"));
}

TEST_F(FeatureEvaluationTest, AShutDownThatIsDueIsNotWithdrawn) {
  settings_["update"] = {{"mail", "off"}};
  evaluate();
  settings_["update"] = {{"mail", "on"}};
  evaluate();
  EXPECT_THAT(takeDecisions(), ElementsAre("answer", "run", "answer"));
  loop_.advanceBy(EvaluationTimers::kFeatureShutdownDelay);
  EXPECT_THAT(takeDecisions(), ElementsAre("shut down"));
}

TEST_F(FeatureEvaluationTest, AMissingSettingIsLoggedInTheNormalModeOnly) {
  settings_["common"] = {{"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  evaluate();
  EXPECT_THAT(lines_.take(), ElementsAre("4 web exposes an invalid configuration switch key "
                                         "\"web\" referenced by service com.example.filter"));
  isInNormalMode_ = false;
  evaluate();
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(FeatureEvaluationTest, ASettingOfAnotherTypeIsLoggedAndDoesNotMatch) {
  settings_["common"] = {{"web", "1"}, {"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  evaluate();
  EXPECT_THAT(takeDecisions(), ElementsAre("answer"));
  EXPECT_THAT(lines_.take(),
              ElementsAre(testing::HasSubstr("com.example.filter:The expected object for the "
                                             "switchkey \"web\" do not match")));
}

TEST_F(FeatureEvaluationTest, FeaturesThatAreNoArrayDecideNothing) {
  use("web");
  evaluate();
  EXPECT_FALSE(features_.isAsking());
  loop_.advanceBy(1h);
  EXPECT_THAT(takeDecisions(), IsEmpty());
  EXPECT_THAT(lines_.take(),
              ElementsAre("3 Malformed features referrences information encountered"));
}

TEST_F(FeatureEvaluationTest, AServiceWithoutFeaturesIsShutDown) {
  use(Array{});
  evaluate();
  loop_.advanceBy(EvaluationTimers::kFeatureShutdownDelay);
  EXPECT_THAT(takeDecisions(), ElementsAre("answer", "shut down"));
}

TEST_F(FeatureEvaluationTest, TheModeMayChangeBeforeTheAnswer) {
  settings_["common"] = {{"web", 1}};
  features_.evaluate(kFilter);
  mayEvaluate_ = false;
  serveSettings();
  EXPECT_THAT(takeDecisions(), ElementsAre("answer"));
  loop_.advanceBy(1h);
  EXPECT_THAT(takeDecisions(), IsEmpty());
}

TEST_F(FeatureEvaluationTest, ARequestDuringAQuestionGetsOneMoreTurn) {
  settings_["common"] = {{"web", 1}, {"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  features_.evaluate(kFilter);
  features_.evaluate(kFilter);
  features_.evaluate(kFilter);
  EXPECT_EQ(onWorker_.size(), 2u);  // one for each server
  serveSettings();
  EXPECT_THAT(takeDecisions(), ElementsAre("run", "evaluate again"));
}

// The values may be older than the request, and a shutdown is never withdrawn.
TEST_F(FeatureEvaluationTest, ARequestDuringAQuestionPreventsAShutDownByItsValues) {
  settings_["common"] = {{"web", 2}, {"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  features_.evaluate(kFilter);
  features_.evaluate(kFilter);
  serveSettings();
  EXPECT_THAT(takeDecisions(), ElementsAre("evaluate again"));
  loop_.advanceBy(1h);
  EXPECT_THAT(takeDecisions(), IsEmpty());
  evaluate();
  loop_.advanceBy(EvaluationTimers::kFeatureShutdownDelay);
  EXPECT_THAT(takeDecisions(), ElementsAre("answer", "shut down"));
}

TEST_F(FeatureEvaluationTest, AHungServerIsAskedAgainOnceForManyEvaluations) {
  settings_["common"] = {{"web", 1}, {"strict", false}};
  settings_["update"] = {{"mail", "off"}};
  isHung_ = true;
  evaluate();
  evaluate();
  EXPECT_THAT(takeDecisions(), ElementsAre("run", "answer", "run", "answer"));
  loop_.advanceBy(EvaluationTimers::kHungServerRetryDelay - 1ns);
  EXPECT_THAT(takeDecisions(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(takeDecisions(), ElementsAre("evaluate again"));
  loop_.advanceBy(1h);
  EXPECT_THAT(takeDecisions(), IsEmpty());
}

}  // namespace
