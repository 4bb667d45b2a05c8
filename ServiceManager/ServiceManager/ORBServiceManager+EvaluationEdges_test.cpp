// Evaluations of catalogues that are wrong somewhere, and of settings that change meanwhile.

#include <chrono>
#include <string>
#include <utility>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

// A sound root "Features", and the same with `wrong` in place of one of its parts.
Dictionary features() {
  return {
      {"scan", Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                      {"Switches", Dictionary{{"mode", 1}}}}}}}}};
}
Value configurationWith(const char* key, const Value& wrong) {
  Dictionary configuration = *features()["scan"]["Config"].array()->front().dictionary();
  configuration.set(key, wrong);
  return configuration;
}
Value featuresWith(const std::string& part, const Value& wrong) {
  if (part == "Features") return wrong;
  if (part == "feature") return Dictionary{{"scan", wrong}};
  if (part == "Config") return Dictionary{{"scan", Dictionary{{"Config", wrong}}}};
  const Value configuration =
      part == "configuration" ? wrong : configurationWith(part.c_str(), wrong);
  return Dictionary{{"scan", Dictionary{{"Config", Array{configuration}}}}};
}

class EvaluationEdgesTest : public ServiceManagerFixture {
 protected:
  // A feature service between two core services.
  void useScanner(const Value& allFeatures) {
    Dictionary wrong = catalogue({{kPrimary, entry("configd")},
                                  {kScanner, entry("scanner", {{"Features", Array{"scan"}}})},
                                  {kAgent, entry("agent")}});
    wrong.set("Features", allFeatures);
    use(wrong);
    settings("common")["mode"] = 1;
  }
  void evaluateScanner() {
    manager().evaluateInformationForService(kScanner);
    loop_.runReady();
  }
};

TEST_F(EvaluationEdgesTest, WithSoundFeaturesTheServiceRuns) {
  useScanner(features());
  evaluateScanner();
  EXPECT_TRUE(isRunning(kScanner));
  loop_.advanceBy(3s);
  EXPECT_TRUE(isRunning(kScanner));
}

// A server that hangs and goes on announces nothing.
TEST_F(EvaluationEdgesTest, AServiceOfAServerThatHungIsEvaluatedAgain) {
  bool isHung = true;
  factories_.add("commonSettingsClientWithDelegate:",
                 [&](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   auto client = std::make_unique<FakeSettingsClient>(settings_["common"]);
                   client->isHung = &isHung;
                   return client;
                 });
  useScanner(features());
  settings_["common"].erase("mode");  // As long as it hangs.
  evaluateScanner();
  evaluateScanner();
  loop_.advanceBy(31s - 1ns);
  EXPECT_FALSE(isRunning(kScanner));
  EXPECT_EQ(countInLog("Evaluating service: com.example.scanner"), 2u);
  settings_["common"]["mode"] = 1;
  loop_.advanceBy(1ns);
  EXPECT_TRUE(isRunning(kScanner));
  isHung = false;
  loop_.advanceBy(31s);
  EXPECT_EQ(countInLog("Evaluating service: com.example.scanner"), 4u);
  loop_.advanceBy(10min);
  EXPECT_EQ(countInLog("Evaluating service: com.example.scanner"), 4u);
}

TEST_F(EvaluationEdgesTest, WithoutRootFeaturesAFeatureServiceIsShutDown) {
  useScanner(features());
  evaluateScanner();
  Dictionary without = *manager().serviceInfo().dictionary();
  without.remove("Features");
  use(without);
  evaluateScanner();
  loop_.advanceBy(3s - 1ns);
  EXPECT_TRUE(isRunning(kScanner));
  loop_.advanceBy(1ns);
  EXPECT_FALSE(isRunning(kScanner));
}

// The place of the wrong value in the features, and the wrong value.
class WrongFeaturesTest : public EvaluationEdgesTest,
                          public testing::WithParamInterface<std::pair<const char*, Value>> {};

TEST_P(WrongFeaturesTest, CountAsNoMatchAndAffectNoOtherService) {
  const auto& [part, wrong] = GetParam();
  useScanner(features());
  evaluate();
  ASSERT_TRUE(isRunning(kScanner));
  takeLog();

  Dictionary catalogue = *manager().serviceInfo().dictionary();
  catalogue.set("Features", featuresWith(part, wrong));
  use(catalogue);
  evaluate();
  kill(kAgent);
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kScanner));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_THAT(takeLog(), Not(Contains(HasSubstr("do not match the return switchkey value"))));
}

auto wrongFeatures() {
  const std::pair<const char*, Value> values[] = {{"boolean", true},
                                                  {"integer", 7},
                                                  {"real", 0.5},
                                                  {"string", "scan"},
                                                  {"data", Data{1}},
                                                  {"array", Array{"scan"}},
                                                  {"dictionary", Dictionary{{"scan", 1}}},
                                                  {"date", Date{}}};
  const std::pair<const char*, const char*> parts[] = {
      {"Features", "dictionary"},      {"feature", "dictionary"}, {"Config", "array"},
      {"configuration", "dictionary"}, {"Source", "string"},      {"Switches", "dictionary"}};
  std::vector<std::pair<const char*, Value>> wrong;
  for (const auto& [part, right] : parts) {
    for (const auto& [type, value] : values) {
      if (std::string_view(type) != right) wrong.emplace_back(part, value);
    }
  }
  return testing::ValuesIn(wrong);
}
INSTANTIATE_TEST_SUITE_P(Types, WrongFeaturesTest, wrongFeatures());

TEST_F(EvaluationEdgesTest, OnlyNormalModeWarnsOfAMissingSwitch) {
  // The server's settings lack both switches, and it goes down when it is asked for the first.
  class EndingClient final : public SettingsClient {
   public:
    explicit EndingClient(ORBServiceManager& manager) : manager_(manager) {}
    Value objectForKey(std::string_view key) override {
      if (key == "second") manager_.handleGlobalSettingsServerWillShutdown({});
      return {};
    }
    MessageResult probeObjectForKey(std::string_view key, Duration) override {
      return objectForKey(key);
    }
    void forgetConnection() override {}

   private:
    ORBServiceManager& manager_;
  };
  Dictionary twoSwitches = features();
  twoSwitches.set(
      "scan", Dictionary{{"Config", Array{configurationWith(
                                        "Switches", Dictionary{{"first", 1}, {"second", 1}})}}});
  factories_.add("commonSettingsClientWithDelegate:",
                 [this](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   return std::make_unique<EndingClient>(manager());
                 });
  useScanner(twoSwitches);
  evaluateScanner();
  // The mode has changed while the settings were asked for.
  EXPECT_THAT(takeLog(), ElementsAre("7 Evaluating service: com.example.scanner",
                                     "7 Primary service is shutting down"));
}

// The main thread may be busy while they are announced.
TEST_F(EvaluationEdgesTest, RestartsOfServersAreOneCallOfTheMainThread) {
  KLXGlobalSettingsClientDelegate* delegate = nullptr;
  factories_.add("commonSettingsClientWithDelegate:",
                 [&](KLXGlobalSettingsClientDelegate& ours) -> SettingsClientResult {
                   delegate = &ours;
                   return std::make_unique<FakeSettingsClient>(settings_["common"]);
                 });
  std::vector<RunLoop::Callback> posted;
  int restarts = 0;
  SettingsQuestions questions(
      {.worker = platform().settingsWorker,
       .onMain = [&](RunLoop::Callback callback) { posted.push_back(std::move(callback)); },
       .now = [&] { return loop_.now(); },
       .onRestart = [&] { ++restarts; }});
  questions.valuesOf({{"common", std::nullopt}}, [](auto) {});
  loop_.runReady();
  ASSERT_TRUE(delegate);
  posted.clear();
  FakeSettingsClient server(settings_["common"]);
  for (int i = 0; i < 10; ++i) delegate->globalSettingsServerDidRestart(server);
  ASSERT_EQ(posted.size(), 1u);
  posted.front()();
  EXPECT_EQ(restarts, 1);
  delegate->globalSettingsServerDidRestart(server);
  EXPECT_EQ(posted.size(), 2u);
}

TEST_F(EvaluationEdgesTest, ARetryIgnoresAFeatureServicesSwitches) {
  useScanner(features());
  useHealth();
  files_.remove(pathOf("scanner"));
  evaluate();
  ASSERT_TRUE(manager().reevaluationTimer());
  addProgram("scanner");
  settings_["common"]["mode"] = 0;
  loop_.advanceBy(20s);
  EXPECT_TRUE(isRunning(kScanner));
}

TEST_F(EvaluationEdgesTest, AnEvaluationKeepsItsCatalogue) {
  useScanner(features());
  manager().evaluateSystemConfiguration();
  // While the primary service is being started, a second launch reads another catalogue.
  install(catalogue({{kPrimary, entry("configd")}, {kAgent, entry("agent")}}));
  startConfigurationServer();
  launch();
  EXPECT_EQ(countInLog("Evaluating service: com.example.scanner"), 1u);
  EXPECT_FALSE(isRunning(kScanner));  // The catalogue of that moment has no job for it.
  EXPECT_TRUE(isRunning(kAgent));
}

}  // namespace
