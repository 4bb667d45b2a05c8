// A service that depends on a switch, and a settings server that hangs, dies and comes back.

#include <chrono>
#include <csignal>
#include <optional>
#include <string>

#include <gmock/gmock.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

class DaemonSettings : public testing::Test {
 protected:
  static constexpr char kServer[] = "com.vantor.CommonPreferences";

  // Service 0 runs while the setting "on" is 1, as it is at first; service 1 always runs.
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
    root_.awaitLog(kEvaluatingCore);
    set(1);
    // The first evaluation found no setting and scheduled a stop of the service; the next daemon
    // has nothing scheduled.
    root_.kill(DaemonRoot::kDaemon, SIGSTOP);  // It writes no line after those that are counted.
    const std::size_t evaluations = root_.logCount(kEvaluatingCore);
    root_.kill(DaemonRoot::kDaemon, SIGKILL);
    root_.await("the next daemon", [&] { return root_.starts() >= 2; });
    root_.await(kFeature + " to run", [&] { return root_.processOf(kFeature) > 0; });
    // Before its first evaluation a daemon is busy with no service and watches none.
    root_.awaitLog(kEvaluatingCore, evaluations + 1);
    awaitServices(root_, {DaemonRoot::kPrimary, kCore, kFeature});
    client_ = std::make_unique<UserInterfaceClient>(root_);
    client_->registerClient();
  }

  void set(int value) {
    UserInterfaceClient settings(root_, kServer);
    EXPECT_TRUE(settings.ask("setObject:forKey:sender:", {value, "on", "test"}));
    EXPECT_EQ(settings.ask("objectForKey:", {"on"}), Value(value));
  }
  // The same without waiting for an answer.
  void announceSetting(int value) {
    if (!settings_) settings_ = std::make_unique<UserInterfaceClient>(root_, kServer);
    EXPECT_TRUE(settings_->ask("setObject:forKey:sender:", {value, "on", "test"}));
  }
  void awaitRunning(const std::string& label) {
    root_.await(label + " to run", [&] { return client_->hasNotice(label, 1); });
  }
  void awaitEnd(const std::string& label) {
    root_.await(label + " to end", [&] { return client_->hasNotice(label, 0); });
  }
  // Waits until the daemon has written all lines so far: lines come in order, and this makes one.
  void awaitWrittenLog() {
    ++registered_;
    client_->registerClient();
    root_.awaitLog("Did register a user interface client remote proxy", registered_);
  }
  ProcessId configurationServer() { return root_.processOf(DaemonRoot::kPrimary); }
  // Makes the daemon evaluate, as after any change.
  void announceChange() {
    root_.center().postNotificationName("KLXGlobalSettingsDidChangeNotification", std::nullopt,
                                        Dictionary{{"KLXGlobalSettingsKeyModified", "on"}},
                                        NSNotificationPosting::kPostToAllSessions);
  }
  // Expects the daemon to answer and to watch its services.
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
  const std::string kEvaluatingCore = "Evaluating service: " + kCore + "\n";
  std::unique_ptr<UserInterfaceClient> client_;
  std::unique_ptr<UserInterfaceClient> settings_;
  std::size_t registered_ = 1;  // the number of registrations
};

TEST_F(DaemonSettings, AServiceFollowsItsSwitch) {
  set(0);
  awaitEnd(kFeature);
  EXPECT_TRUE(client_->ask("services"));
  EXPECT_EQ(root_.processOf(kFeature), 0);
  set(1);
  awaitRunning(kFeature);
  EXPECT_GT(root_.processOf(kFeature), 0);
}

TEST_F(DaemonSettings, TenChangesAtOnceAreTenLinesAndOneEvaluation) {
  constexpr char kNotice[] = "Notification received for global settings change: on";
  constexpr char kDue[] = "Will evaluate the system configuration in";
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

TEST_F(DaemonSettings, AHungServerStopsItsServicesUntilItIsRestarted) {
  const ProcessId before = configurationServer();
  ASSERT_GT(before, 0);
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

TEST_F(DaemonSettings, AChangeIsServedAtOnceAfterItsServerHung) {
  const ProcessId server = configurationServer();
  ASSERT_GT(server, 0);
  ASSERT_EQ(::kill(server, SIGSTOP), 0);
  announceChange();
  awaitEnd(kFeature);
  client_->forgetNotices();
  ASSERT_EQ(::kill(server, SIGCONT), 0);
  const Instant begin = root_.loop().now();
  set(1);
  awaitRunning(kFeature);
  EXPECT_LT(root_.loop().now() - begin,
            std::chrono::seconds(20));  // Without the change it is asked after 31 s.
}

TEST_F(DaemonSettings, ASlowServerIsWaitedForAndItsAnswersCount) {
  const ProcessId server = configurationServer();
  ASSERT_GT(server, 0);
  constexpr char kMissing[] = "feature exposes an invalid configuration switch key \"on\"";
  const std::size_t missing = root_.logCount(kMissing);
  // It hangs most of the time, whatever the test itself waits for.
  const std::string process = std::to_string(server);
  std::optional<ChildProgram> brake;
  brake.emplace(std::vector<std::string>{"/bin/sh", "-c",
                                         "while kill -STOP " + process +
                                             " && /bin/sleep 0.09 && kill -CONT " + process +
                                             " && /bin/sleep 0.01; do :; done"},
                std::vector<std::string>{});
  announceSetting(0);
  awaitEnd(kFeature);
  client_->forgetNotices();
  announceSetting(1);
  awaitRunning(kFeature);
  expectAtWork();
  EXPECT_EQ(root_.logCount(kMissing), missing);
  EXPECT_EQ(configurationServer(), server);
  brake.reset();
  ::kill(server, SIGCONT);
}

TEST_F(DaemonSettings, AServersCrashLoopDoesNoLastingHarm) {
  for (int i = 0; i < 3; ++i) {
    client_->forgetNotices();
    root_.kill(DaemonRoot::kPrimary, SIGKILL);
    awaitEnd(DaemonRoot::kPrimary);
    awaitRunning(DaemonRoot::kPrimary);
    EXPECT_TRUE(client_->ask("services"));
  }
  // Decisions made while nobody answered may still take effect; in the end the service starts.
  root_.await(kFeature + " to run", [&] { return root_.processOf(kFeature) > 0; });
  expectAtWork();
}

}  // namespace
}  // namespace platform
