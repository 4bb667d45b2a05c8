// A service that hangs on a switch, and a settings server that hangs, dies and comes back.

#include <csignal>

#include <gmock/gmock.h>

#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

class DaemonSettings : public testing::Test {
 protected:
  static constexpr char kServer[] = "com.vantor.CommonPreferences";

  // Service 0 runs while the setting "on" is 1, service 1 always.
  DaemonSettings() {
    Dictionary catalogue = DaemonRoot::catalogue(2);
    Dictionary services = *catalogue["Services"].dictionary();
    Dictionary feature = *services[kFeature].dictionary();
    feature.set("Features", Array{"feature"});
    services.set(kFeature, std::move(feature));
    catalogue.set("Services", std::move(services));
    catalogue.set(
        "Features",
        Dictionary{{"feature", Dictionary{{"Config", Array{Dictionary{
                                                         {"Source", "common"},
                                                         {"Switches", Dictionary{{"on", 1}}}}}}}}});
    root_.setCatalogue(catalogue);
    root_.startDaemon();
    root_.awaitStart();
    root_.awaitLog("Evaluating service: " + kCore + "\n");
    client_ = std::make_unique<UserInterfaceClient>(root_);
    client_->registerClient();
  }

  void set(int value) {
    UserInterfaceClient settings(root_, kServer);
    EXPECT_TRUE(settings.ask("setObject:forKey:sender:", {value, "on", "test"}));
    EXPECT_EQ(settings.ask("objectForKey:", {"on"}), Value(value));
  }
  void awaitRunning(const std::string& label) {
    root_.await(label + " to run", [&] { return client_->wasTold(label, 1); });
  }
  void awaitEnd(const std::string& label) {
    root_.await(label + " to end", [&] { return client_->wasTold(label, 0); });
  }
  void turnOn() {
    set(1);
    awaitRunning(kFeature);
    client_->forgetNotices();
  }
  // The daemon has written all that it has logged so far: lines come in order, and this makes one.
  void awaitWrittenLog() {
    ++registered_;
    client_->registerClient();
    root_.awaitLog("Did register a user interface client remote proxy", registered_);
  }
  ProcessId configurationServer() { return root_.processOf(DaemonRoot::kPrimary); }
  // The daemon evaluates, as after any change.
  void announceChange() {
    root_.center().postNotificationName("KLXGlobalSettingsDidChangeNotification", std::nullopt,
                                        Dictionary{{"KLXGlobalSettingsKeyModified", "on"}},
                                        NSNotificationPosting::kPostToAllSessions);
  }
  // The daemon answers, and looks after its services.
  void expectAtWork() {
    EXPECT_TRUE(client_->ask("services"));
    client_->forgetNotices();
    const ProcessId before = root_.processOf(kCore);
    ASSERT_GT(before, 0);
    ASSERT_EQ(::kill(before, SIGKILL), 0);
    awaitEnd(kCore);
    awaitRunning(kCore);
    EXPECT_NE(root_.processOf(kCore), before);
  }

  DaemonRoot root_;
  const std::string kFeature = DaemonRoot::label(0);
  const std::string kCore = DaemonRoot::label(1);
  std::unique_ptr<UserInterfaceClient> client_;
  std::size_t registered_ = 1;  // how often
};

TEST_F(DaemonSettings, AServiceFollowsItsSwitch) {
  EXPECT_EQ(root_.processOf(kFeature), 0);
  turnOn();
  EXPECT_GT(root_.processOf(kFeature), 0);
  set(0);
  awaitEnd(kFeature);
  EXPECT_TRUE(client_->ask("services"));
  EXPECT_EQ(root_.processOf(kFeature), 0);
}

TEST_F(DaemonSettings, TenChangesAtOnceAreTenLinesAndOneEvaluation) {
  constexpr char kNotice[] = "Notification received for global settings change: on";
  constexpr char kDue[] = "Will evaluate the system configuration in";
  turnOn();
  awaitWrittenLog();
  const std::size_t notices = root_.logCount(kNotice);
  const std::size_t due = root_.logCount(kDue);
  const std::size_t evaluations = root_.logCount(DaemonRoot::kEvaluating);
  for (int i = 0; i < 10; ++i) announceChange();
  root_.awaitLog(kNotice, notices + 10);
  root_.awaitLog(DaemonRoot::kEvaluating, evaluations + 1);
  awaitWrittenLog();
  EXPECT_EQ(root_.logCount(kNotice), notices + 10);
  EXPECT_EQ(root_.logCount(kDue), due + 1);
  EXPECT_EQ(root_.logCount(DaemonRoot::kEvaluating), evaluations + 1);
}

TEST_F(DaemonSettings, AServerThatHangsStopsWhatHangsOnItUntilItIsRestarted) {
  turnOn();
  const ProcessId before = configurationServer();
  ASSERT_EQ(::kill(before, SIGSTOP), 0);
  announceChange();
  root_.awaitLog("feature exposes an invalid configuration switch key \"on\"",
                 root_.logCount("feature exposes an invalid configuration switch key \"on\"") + 1);
  awaitEnd(kFeature);
  EXPECT_TRUE(client_->ask("services"));
  EXPECT_EQ(root_.processOf(kFeature), 0);
  expectAtWork();

  client_->forgetNotices();
  ASSERT_EQ(::kill(before, SIGKILL), 0);
  awaitRunning(kFeature);
  EXPECT_NE(configurationServer(), before);
  expectAtWork();
}

TEST_F(DaemonSettings, AServerThatDiesAgainAndAgainCostsItsServicesNothingForGood) {
  turnOn();
  for (int i = 0; i < 3; ++i) {
    client_->forgetNotices();
    ASSERT_EQ(::kill(configurationServer(), SIGKILL), 0);
    awaitEnd(DaemonRoot::kPrimary);
    awaitRunning(DaemonRoot::kPrimary);
    EXPECT_TRUE(client_->ask("services"));
  }
  // What was decided while nobody answered may still take effect; the end of that is a start.
  root_.await(kFeature + " to run", [&] { return root_.processOf(kFeature) > 0; });
  expectAtWork();
}

}  // namespace
}  // namespace platform
