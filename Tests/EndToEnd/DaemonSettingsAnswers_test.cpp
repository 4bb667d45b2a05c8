// Settings servers with wrong answers. The test itself is the servers.

#include <memory>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;

class DaemonSettingsAnswers : public testing::Test, public MessageReceiver {
 protected:
  DaemonSettingsAnswers() {
    addServiceManagerProtocols(protocols_);
    addGlobalSettingsProtocol(protocols_);
    status_ = vend("com.vantor.service.configd.status",
                   kORBServiceManagerConfigurationServerStatusProtocol);
    settings_ = vend("com.vantor.CommonPreferences", kKLXGlobalSettingsProtocol);
    // Service 0 runs while the setting "on" is 1; the primary service serves nothing.
    Dictionary catalogue = DaemonRoot::catalogue(1);
    Dictionary services = *catalogue["Services"].dictionary();
    Dictionary feature = *services[kFeature].dictionary();
    feature.set("Features", Array{"feature"});
    services.set(kFeature, std::move(feature));
    services.set(DaemonRoot::kPrimary, DaemonRoot::service(DaemonRoot::kPrimary));
    catalogue.set("Services", std::move(services));
    catalogue.set(
        "Features",
        Dictionary{{"feature", Dictionary{{"Config", Array{Dictionary{
                                                         {"Source", "common"},
                                                         {"Switches", Dictionary{{"on", 1}}}}}}}}});
    root_.setCatalogue(catalogue);
  }
  ~DaemonSettingsAnswers() override {
    for (const auto& server : {status_, settings_}) server->invalidate();
  }

  std::shared_ptr<NSConnection> vend(const char* name, const char* protocol) {
    auto server = connections_.makeConnection();
    server->setDelegate(&authenticator_);
    server->setRootObject(std::make_shared<NSProtocolChecker>(this, protocols_.find(protocol)));
    EXPECT_TRUE(server->registerName(name));
    return server;
  }
  MessageResult receiveMessage(std::string_view selector, const Array&) override {
    if (selector != "isServerUp") return on_;
    ++questions_;
    root_.changed();
    return isUp_;
  }

  void post(const char* name) {
    root_.center().postNotificationName(name, std::nullopt, {},
                                        NSNotificationPosting::kPostToAllSessions);
  }
  // Changes the answer and makes the daemon ask for it; the daemon then logs the line.
  void answer(MessageResult on, const std::string& line) {
    on_ = std::move(on);
    const std::size_t before = root_.logCount(line);
    post(kKLXGlobalSettingsDidChangeNotification);
    root_.awaitLog(line, before + 1);
  }

  DaemonRoot root_;
  const std::string kFeature = DaemonRoot::label(0);
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  NotificationCenter center_;
  ProtocolTable protocols_;
  KLXConnectionAuthenticator authenticator_{root_.system()};
  NamedConnections connections_{
      root_.loop(), root_.transport(), center_, log_,
      [this](std::string_view name) { return pathOfConnection(root_.path(), name); }};
  std::shared_ptr<NSConnection> status_;
  std::shared_ptr<NSConnection> settings_;
  int questions_ = 0;  // of the daemon, whether the server is up
  MessageResult isUp_ = Value(true);
  MessageResult on_ = Value(1);
};

TEST_F(DaemonSettingsAnswers, AWrongTypeStopsTheServiceUntilCorrected) {
  root_.startDaemon();
  root_.awaitStart();
  root_.await(kFeature + " to run", [&] { return root_.processOf(kFeature) > 0; });
  UserInterfaceClient client(root_);
  client.registerClient();
  const std::string clash = kFeature +
                            ":The expected object for the switchkey \"on\" do not match the return "
                            "switchkey value \"";
  answer(Value("1"), clash + "1\" of type \"NSString\"");
  root_.await(kFeature + " to end", [&] { return client.hasNotice(kFeature, 0); });
  answer(Array{1}, clash + "[1]\" of type \"NSArray\"");
  answer(Dictionary{{"on", 1}}, clash);
  answer(Data{1}, clash);
  const std::string missing = "feature exposes an invalid configuration switch key \"on\"";
  answer(Value(), missing);
  answer(std::unexpected(NSException{"ServerException", "because", {}}), missing);
  EXPECT_TRUE(client.ask("services"));
  EXPECT_EQ(root_.processOf(kFeature), 0);

  client.forgetNotices();
  on_ = Value(1.0);
  post(kKLXGlobalSettingsDidChangeNotification);
  root_.await(kFeature + " to run", [&] { return client.hasNotice(kFeature, 1); });
  EXPECT_EQ(root_.starts(), 1U);
}

TEST_F(DaemonSettingsAnswers, AnExplanationNamesAHungServerAndItsLastValue) {
  root_.startDaemon();
  root_.awaitStart();
  root_.await(kFeature + " to run", [&] { return root_.processOf(kFeature) > 0; });
  awaitServices(root_, {kFeature});
  const ProcessId before = root_.processOf(kFeature);
  // The test serves nothing until the command has ended.
  const auto explained = root_.host().control({"explain", kFeature});
  EXPECT_EQ(explained.status, exited(0)) << explained.errors;
  EXPECT_THAT(
      explained.output,
      AllOf(HasSubstr("because switch \"on\" of feature \"feature\" asks for it"),
            ContainsRegex("common: \"on\" of feature \"feature\", expected 1, was 1 [0-9.]+ s "
                          "ago \\(its settings server gives no answer now\\): asks for it")));
  EXPECT_EQ(root_.processOf(kFeature), before);
  // The next evaluation still asks the server.
  answer(Array{1}, ":The expected object for the switchkey \"on\" do not match");
}

TEST_F(DaemonSettingsAnswers, AStatusOfAWrongTypeMeansDown) {
  isUp_ = Value("yes");
  root_.startDaemon();
  root_.awaitStart();
  root_.awaitLog("Evaluating primary service");
  const int before = questions_;
  isUp_ = Array{true};
  post("com.vantor.notification.configd.didstart");
  root_.await("the question", [&] { return questions_ > before; });
  isUp_ = std::unexpected(NSException{"ServerException", "because", {}});
  const std::size_t raised = root_.logCount("ServerException. Retrying: 1 attempt(s)");
  post("com.vantor.notification.configd.didstart");
  root_.awaitLog("ServerException. Retrying: 1 attempt(s)", raised + 1);
  EXPECT_EQ(root_.logCount("Primary service did start"), 0U);
  EXPECT_EQ(root_.processOf(kFeature), 0);
  isUp_ = Value(true);
  post("com.vantor.notification.configd.didstart");
  root_.await(kFeature + " to run", [&] { return root_.processOf(kFeature) > 0; });
}

}  // namespace
}  // namespace platform
