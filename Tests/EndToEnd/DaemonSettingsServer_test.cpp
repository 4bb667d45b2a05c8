// Changes of settings and their effects: features that start and stop, and values that outlive the
// server.

#include <chrono>
#include <csignal>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/CrudeClient.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/SettingsProgram.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr char kFeatureService[] = "com.vantor.test.feature";

// A feature that two switches turn on, and a third that no setting matches.
Dictionary catalogueWithFeature() {
  Dictionary catalogue = DaemonRoot::catalogue(1);
  Dictionary feature = DaemonRoot::service(kFeatureService);
  feature.set("Features", Array{"Feature"});
  Dictionary services = *catalogue["Services"].dictionary();
  services.set(kFeatureService, feature);
  catalogue.set("Services", services);
  catalogue.set(
      "Features",
      Dictionary{
          {"Feature",
           Dictionary{
               {"Config",
                Array{Dictionary{{"Source", "common"},
                                 {"Switches", Dictionary{{"Enabled", 1}, {"Mode", "strict"}}}},
                      Dictionary{{"Source", "ntp"}, {"Switches", Dictionary{{"Nowhere", 1}}}}}}}}});
  return catalogue;
}

class DaemonSettingsServer : public testing::Test {
 protected:
  void startDaemon() {
    root_.setCatalogue(catalogueWithFeature());
    root_.startDaemon();
    root_.awaitStart();
    program_.emplace(root_);
    root_.awaitLog("Evaluating service: " + std::string(kFeatureService));
    userInterface_.emplace(root_);
    userInterface_->registerClient();
  }
  // The configuration server alone, as a job.
  void startServer() {
    program_.emplace(root_);
    Dictionary job{*DaemonRoot::service(DaemonRoot::kPrimary, "configd")["JobSpec"].dictionary()};
    job.set("Label", DaemonRoot::kPrimary);
    job.set("Program", root_.folder().path("opt/configd"));
    job.set("KeepAlive", true);
    const auto submitted =
        root_.jobs().SMJobSubmit(kSMDomainSystemLaunchd, Value(std::move(job)), nullptr);
    ASSERT_TRUE(submitted) << submitted.error().localizedDescription;
    root_.await("the settings server", [&] { return program_->starts() > 0; });
  }
  void killServer() {
    const int before = program_->starts();
    root_.kill(DaemonRoot::kPrimary, SIGKILL);
    root_.await("the settings server to be back", [&] { return program_->starts() > before; });
  }
  void awaitFeature(std::int64_t status) {
    root_.await("the feature's service",
                [&] { return userInterface_->hasNotice(kFeatureService, status); });
    userInterface_->forgetNotices();
  }
  // Returns the tool's exit status; its output is in `output_` and `errors_`.
  int control(std::vector<std::string> arguments) {
    std::vector<std::string> all{SERVICEMANAGERCTL, "--root", root_.path(), "settings"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    ChildProgram tool(all, {});
    const ExitStatus status = tool.waitForExit();
    output_ = tool.restOfOutput();
    errors_ = tool.errors();
    return status.kind == ExitStatus::Kind::kExited ? status.number : -1;
  }

  DaemonRoot root_;
  std::optional<SettingsProgram> program_;
  std::optional<UserInterfaceClient> userInterface_;
  std::string output_;
  std::string errors_;
};

TEST_F(DaemonSettingsServer, ASwitchOfAnyTypeAndDomainTurnsItsFeatureOn) {
  startDaemon();
  EXPECT_EQ(root_.processOf(kFeatureService), 0);
  program_->set("Enabled", 1);
  awaitFeature(1);
  program_->set("Enabled", 0);
  awaitFeature(0);
  root_.await("the job's end", [&] { return root_.processOf(kFeatureService) == 0; });
  // Its other switch, of another type, turns it on.
  program_->set("Mode", "strict");
  awaitFeature(1);
  program_->client().sendMessage("removeObjectForKey:sender:", {"Mode", "test"});
  awaitFeature(0);
  EXPECT_GT(root_.logCount("Feature exposes an invalid configuration switch key \"Nowhere\""), 0u);
}

TEST_F(DaemonSettingsServer, AKillLosesNoAnnouncedChange) {
  constexpr int kRounds = 8;
  constexpr int kKeys = 100;
  startServer();
  std::set<std::string> announced;
  std::size_t killAt = 0;
  const auto observation = root_.center().addObserver(
      kKLXGlobalSettingsDidChangeNotification, std::nullopt,
      [&](const DistributedNotification& notification) {
        announced.insert(*notification.userInfo[kKLXGlobalSettingsKeyModified].string());
        root_.changed();
      });
  for (int round = 1; round <= kRounds && !HasFailure(); ++round) {
    announced.clear();
    const ProcessId server = root_.processOf(DaemonRoot::kPrimary);
    ASSERT_GT(server, 0);
    const int starts = program_->starts();
    for (int key = 0; key < kKeys; ++key) program_->set("key " + std::to_string(key), round);
    killAt = static_cast<std::size_t>(1 + (round - 1) * (kKeys - 1) / kRounds);
    root_.await("changes", [&] { return announced.size() >= killAt; });
    ASSERT_EQ(::kill(server, SIGKILL), 0);
    root_.await("the server", [&] { return program_->starts() > starts; });
    for (const std::string& key : announced)
      EXPECT_EQ(program_->client().objectForKey(key), Value(round)) << key;
  }
}

TEST_F(DaemonSettingsServer, AKillLosesNoAcknowledgedOrReadValue) {
  constexpr int kRounds = 5;
  startServer();
  for (int round = 1; round <= kRounds && !HasFailure(); ++round) {
    program_->set("read", round);
    ASSERT_EQ(program_->client().objectForKey("read"), Value(round));
    program_->client().sendMessage("registerDefaults:", {Dictionary{{"default", round}}});
    ASSERT_EQ(program_->client().objectForKey("default"), Value(round));
    const Data bytes(10'000, static_cast<std::uint8_t>(round));
    ASSERT_EQ(program_->client().sendMessage("persistBlob:forKey:sender:", {bytes, "blob", "test"}),
              MessageResult(Value(true)));
    killServer();
    EXPECT_EQ(program_->client().objectForKey("read"), Value(round));
    EXPECT_EQ(program_->client().objectForKey("default"), Value(round));
    EXPECT_EQ(program_->client().sendMessage("persistedBlobForKey:", {"blob"}),
              MessageResult(Value(bytes)));
  }
}

TEST_F(DaemonSettingsServer, AFloodOfRequestsKeepsNobodyFromItsSettings) {
  constexpr char kServer[] = "com.vantor.CommonPreferences";
  startServer();
  const ProcessId server = root_.processOf(DaemonRoot::kPrimary);
  program_->set("large", std::string(50'000, 'x'));
  program_->set("key", 0);
  ASSERT_EQ(program_->client().objectForKey("key"), Value(0));
  // Some are idle, and some send more requests than they read answers.
  std::vector<UniqueFd> strangers;
  const std::string path = pathOfConnection(root_.path(), kServer);
  while (strangers.size() < 1000 && !HasFailure()) {
    auto socket = connectToSocket(path, 60s);
    ASSERT_TRUE(socket) << describe(socket.error());
    strangers.push_back(std::move(*socket));
  }
  std::vector<std::unique_ptr<CrudeClient>> askers;
  int answers = 0;
  for (int i = 0; i < 20; ++i) {
    askers.push_back(std::make_unique<CrudeClient>(root_, kServer));
    askers.back()->authenticate();
    for (int call = 0; call < 200; ++call) {
      askers.back()->peer().callAsync("objectForKey:", {"large"}, Duration::max(),
                                      [&](const MessageResult&) {
                                        ++answers;
                                        root_.changed();
                                      });
    }
    program_->set("key", i);
    ASSERT_EQ(program_->client().objectForKey("key"), Value(i));
  }
  SettingsProgram another(root_);
  EXPECT_EQ(another.client().objectForKey("key"), Value(19));
  root_.await("an answer or a refusal for each", [&] { return answers == 20 * 200; });
  EXPECT_EQ(program_->client().objectForKey("key"), Value(19));
  EXPECT_EQ(root_.processOf(DaemonRoot::kPrimary), server);
}

TEST_F(DaemonSettingsServer, TheOperatorReadsAndChangesSettings) {
  startServer();
  EXPECT_EQ(control({"list", "common"}), 0) << errors_;
  EXPECT_EQ(output_, "common has no settings.\n");
  EXPECT_EQ(control({"set", "common", "Enabled", "1"}), 0) << errors_;
  EXPECT_EQ(output_, "Enabled of common is 1 (integer).\n");
  EXPECT_EQ(program_->client().objectForKey("Enabled").integer(), 1);
  EXPECT_EQ(control({"set", "common", "Enabled", "--type", "boolean", "yes"}), 0) << errors_;
  EXPECT_EQ(program_->client().objectForKey("Enabled").boolean(), true);
  EXPECT_EQ(control({"set", "common", "Level", "--", "-5"}), 0) << errors_;
  EXPECT_EQ(program_->client().objectForKey("Level").integer(), -5);
  EXPECT_EQ(control({"set", "common", "Blob", "--type", "data", "AQI="}), 0) << errors_;
  EXPECT_EQ(program_->client().objectForKey("Blob"), Value(Data{1, 2}));
  EXPECT_EQ(control({"get", "common", "Blob"}), 0) << errors_;
  EXPECT_EQ(output_, "AQI=\n");
  EXPECT_EQ(control({"get", "com.vantor.CommonPreferences", "Enabled", "--json"}), 0) << errors_;
  EXPECT_THAT(output_, HasSubstr("\"type\": \"boolean\""));
  EXPECT_EQ(control({"list", "common"}), 0) << errors_;
  EXPECT_EQ(output_,
            "KEY      TYPE        SET      VALUE\n"
            "Blob     data        yes      \"AQI=\"\n"
            "Enabled  boolean     yes      true\n"
            "Level    integer     yes      -5\n");
  program_->client().sendMessage("registerDefaults:", {Dictionary{{"Enabled", 0}}});
  EXPECT_EQ(control({"unset", "common", "Enabled"}), 0) << errors_;
  EXPECT_EQ(output_, "Enabled of common is 0 (integer, by default).\n");
  EXPECT_EQ(control({"unset", "common", "Level"}), 0) << errors_;
  EXPECT_EQ(output_, "Level of common is not set.\n");
}

TEST_F(DaemonSettingsServer, TheOperatorsErrorsAreExplained) {
  EXPECT_EQ(control({"list", "common"}), 5);
  EXPECT_THAT(errors_, HasSubstr("the settings server of common does not serve below"));
  EXPECT_EQ(control({"list", "commons"}), 2);
  EXPECT_THAT(errors_, HasSubstr("there is no settings domain \"commons\"; there are update, "
                                 "common, deviceControl, appControl, cmx, heartbeat, ntp, "
                                 "webControl"));
  startServer();
  EXPECT_EQ(control({"get", "common", "nothing"}), 3);
  EXPECT_THAT(errors_, HasSubstr("common has no setting \"nothing\""));
  EXPECT_EQ(control({"set", "common", "a", "x", "--type", "integer"}), 2);
  EXPECT_THAT(errors_, HasSubstr("\"x\" is not an integer of 64 bits"));
  EXPECT_EQ(control({"set", "common", std::string(256, 'k'), "1"}), 1);
  EXPECT_THAT(errors_, HasSubstr("the server does not hold what was set"));
  root_.awaitLog("its key has 256 bytes, the most are 255");
  EXPECT_EQ(control({"set", "common", "a"}), 2);
  EXPECT_EQ(control({"set", "common", "", "1"}), 2);
  EXPECT_THAT(errors_, HasSubstr("the key is empty"));
  EXPECT_EQ(control({"get", "common", "\xFF"}), 2);
  EXPECT_THAT(errors_, HasSubstr("argument \"\\ufffd\" is not UTF-8"));
  EXPECT_EQ(control({"set", "common", "a", "\xC3"}), 2);
  EXPECT_THAT(errors_, HasSubstr("argument \"\\ufffd\" is not UTF-8"));
  EXPECT_EQ(control({"set", "common", "a", "1", "--type", "colour"}), 2);
}

}  // namespace
}  // namespace platform
