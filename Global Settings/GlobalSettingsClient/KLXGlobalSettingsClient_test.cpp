#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Logger/Logger.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using namespace std::chrono_literals;
using platform::Array;
using platform::MessageResult;
using platform::MethodDescription;
using platform::Value;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// Answers every message with its selector; `messages` holds the messages that reached it.
struct RecordingServer final : platform::MessageReceiver {
  MessageResult receiveMessage(std::string_view selector, const Array& arguments) override {
    messages.emplace_back(selector, arguments);
    if (selector == "boolForKey:")
      return std::unexpected(platform::NSException{"ServerException", "because", {}});
    return Value(selector);
  }
  std::vector<std::pair<std::string, Array>> messages;
};

struct RecordingDelegate final : KLXGlobalSettingsClientDelegate {
  void globalSettingsServerDidRestart(SettingsClient& client) override {
    restarted.push_back(&client);
    if (onRestart) onRestart(client);
  }
  std::vector<SettingsClient*> restarted;
  std::function<void(SettingsClient&)> onRestart;
};

struct DelegateWithoutMethods final : KLXGlobalSettingsClientDelegate {};

class KLXGlobalSettingsClientTest : public testing::Test {
 protected:
  using Client = KLXGlobalSettingsClient;

  KLXGlobalSettingsClientTest() {
    VantorDistantObject::gTimeoutInterval = 10.0;
    addGlobalSettingsProtocol(protocols_);
  }

  Client::Environment environment() {
    return {loop_, program_.connections, *distributed_, program_.center, protocols_, system_};
  }
  std::shared_ptr<platform::NSConnection> vend(const std::string& name, RecordingServer& server) {
    auto vended = serverProgram_.connections.makeConnection();
    vended->setDelegate(&authenticator_);
    vended->setRootObject(std::make_shared<platform::NSProtocolChecker>(
        &server, protocols_.find(kKLXGlobalSettingsProtocol)));
    EXPECT_TRUE(vended->registerName(name));
    return vended;
  }
  void post(const std::string& name) {
    serverDistributed_->postNotificationName(name, std::nullopt, {},
                                             platform::NSNotificationPosting::kPostToAllSessions);
    loop_.runReady();
  }
  platform::Duration timeOf(const std::function<void()>& action) {
    const platform::Instant start = loop_.now();
    action();
    return loop_.now() - start;
  }

  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "program"};
  LoggerBinding binding_{log_};
  platform::FakeLogSink console_;
  platform::NSLogOutput nsLog_{log_, console_};
  platform::FakeSystemInformation system_;
  platform::ProtocolTable protocols_;
  platform::VirtualRunLoop loop_;
  platform::FakeNotificationBus bus_{loop_};
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  platform::FakePeerTransport serverTransport_{network_, {200, 0, 0}};
  std::function<std::string(std::string_view)> path_ = [](std::string_view name) {
    return std::string(name);
  };
  platform::ConnectedProgram program_{loop_, transport_, path_};
  platform::ConnectedProgram serverProgram_{loop_, serverTransport_, path_};
  std::unique_ptr<platform::DistributedNotificationCenter> distributed_ = bus_.makeCenter(log_);
  std::unique_ptr<platform::DistributedNotificationCenter> serverDistributed_ =
      bus_.makeCenter(log_);
  KLXConnectionAuthenticator authenticator_{system_};
  RecordingServer server_;
  RecordingDelegate delegate_;
};

// A second copy, since other programs rely on these names.
struct Expected {
  const char* prefix;
  const char* server;
  const char* notification;
};
constexpr Expected kExpected[] = {
    {"update", "com.vantor.UpdatePreferences", "com.vantor.UpdatePreferences.didStart"},
    {"common", "com.vantor.CommonPreferences", "com.vantor.CommonPreferences.didStart"},
    {"deviceControl", "com.vantor.DeviceControl", "com.vantor.DeviceControlPreferences.didStart"},
    {"appControl", "com.vantor.AppControl", "com.vantor.AppPreferences.didStart"},
    {"cmx", "com.vantor.CmxPreferences", "com.vantor.CmxPreferences.didStart"},
    {"heartbeat", "com.vantor.HeartbeatPreferences", "com.vantor.HeartbeatPreferences.didStart"},
    {"ntp", "com.vantor.NetworkThreatProtection", "com.vantor.NetworkThreatProtection.didStart"},
    {"webControl", "com.vantor.WebControlPreferences", "com.vantor.WebControlPreferences.didStart"},
};

TEST_F(KLXGlobalSettingsClientTest, EachFactorySpeaksToItsOwnServer) {
  SettingsClientFactories factories;
  addSettingsClientFactories(factories, environment());
  for (const Expected& expected : kExpected) {
    SCOPED_TRACE(expected.prefix);
    const auto* factory =
        factories.find(std::string(expected.prefix) + "SettingsClientWithDelegate:");
    ASSERT_NE(factory, nullptr);
    RecordingServer server;
    const auto vended = vend(expected.server, server);
    const auto made = (*factory)(delegate_);
    ASSERT_TRUE(made);
    EXPECT_EQ((*made)->objectForKey("a"), Value("objectForKey:"));
    EXPECT_THAT(server.messages, ElementsAre(std::pair("objectForKey:", Array{"a"})));
    const auto& client = dynamic_cast<const Client&>(**made);
    EXPECT_EQ(client.remoteServerName(), expected.server);
    EXPECT_EQ(client.serverDidStartNotificationName(), expected.notification);
    EXPECT_EQ(client.protocolName(), "KLXGlobalSettingsProtocol");
    EXPECT_EQ(client.delegate(), &delegate_);
    EXPECT_FALSE(client.retryAfterException());
    delegate_.restarted.clear();
    post(expected.notification);
    EXPECT_THAT(delegate_.restarted, ElementsAre(made->get()));
    vended->invalidate();
    loop_.runReady();
  }
}

TEST_F(KLXGlobalSettingsClientTest, APrefixOutsideTheTableNamesNoFactory) {
  SettingsClientFactories factories;
  addSettingsClientFactories(factories, environment());
  for (const char* selector :
       {"SettingsClientWithDelegate:", "CommonSettingsClientWithDelegate:",
        "commonSettingsClientWithDelegate", "webcontrolSettingsClientWithDelegate:",
        "AppSettingsClientWithDelegate:", "createCommonSettingsClient"}) {
    EXPECT_EQ(factories.find(selector), nullptr) << selector;
  }
}

TEST_F(KLXGlobalSettingsClientTest, EachCallMakesAClientOfItsOwn) {
  const auto one = Client::commonSettingsClientWithDelegate(environment(), &delegate_);
  const auto other = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  EXPECT_NE(one, other);
  EXPECT_EQ(other->delegate(), nullptr);
}

// The whole protocol with its types.
struct Message {
  const char* selector;
  bool isOneWay;
};
constexpr Message kMessages[] = {
    {"registerDefaults:", true},
    {"restoreDefaultsForKeys:sender:", true},
    {"dictionaryRepresentation", false},
    {"versionDictionary", false},
    {"defaultSubscription", false},
    {"objectForKey:", false},
    {"stringForKey:", false},
    {"arrayForKey:", false},
    {"dictionaryForKey:", false},
    {"dataForKey:", false},
    {"integerForKey:", false},
    {"floatForKey:", false},
    {"doubleForKey:", false},
    {"setObject:forKey:sender:", true},
    {"setInteger:forKey:sender:", true},
    {"setFloat:forKey:sender:", true},
    {"setDouble:forKey:sender:", true},
    {"setBool:forKey:sender:", true},
    {"removeObjectForKey:sender:", true},
    {"isDefault:", false},
    {"persistBlob:forKey:sender:", false},
    {"persistedBlobForKey:", false},
    {"deletePersistedBlobForKey:", true},
    {"persistedBlobKeys", false},
};

TEST_F(KLXGlobalSettingsClientTest, EveryMessageOfTheProtocolIsForwarded) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  for (const Message& message : kMessages) {
    SCOPED_TRACE(message.selector);
    server_.messages.clear();
    const MethodDescription* method = client->methodSignatureForSelector(message.selector);
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(method->kind == MethodDescription::Kind::kOneWay, message.isOneWay);
    const Array arguments(method->argumentCount(), Value("argument"));
    EXPECT_EQ(client->sendMessage(message.selector, arguments),
              MessageResult(message.isOneWay ? Value() : Value(message.selector)));
    loop_.runReady();
    EXPECT_THAT(server_.messages, ElementsAre(std::pair(message.selector, arguments)));
    EXPECT_EQ(client->recentException(), std::nullopt);
  }
  const auto& methods = protocols_.find(kKLXGlobalSettingsProtocol)->methods();
  EXPECT_EQ(methods.size(), std::size(kMessages) + 1);  // And boolForKey:, which raises here.
}

TEST_F(KLXGlobalSettingsClientTest, AOneWayMessageReturnsAtOnceFromAHungServer) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  ASSERT_TRUE(client->isProxyValid());
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { client->sendMessage("setBool:forKey:sender:", {true, "a", Value()}); }),
            0s);
  EXPECT_EQ(client->recentException(), std::nullopt);
}

TEST_F(KLXGlobalSettingsClientTest, EachFailedMessageIsOneAttemptOfTenSeconds) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  ASSERT_TRUE(client->isProxyValid());
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(client->objectForKey("a").isNil()); }), 10s);
  ASSERT_TRUE(client->recentException());
  EXPECT_EQ(client->recentException()->name, platform::kNSPortTimeoutException);
  EXPECT_EQ(sink_.messagesAtLevel(platform::ASL_LEVEL_ERR).size(), 1u);
}

TEST_F(KLXGlobalSettingsClientTest, AFailedProbeIsReturnedAndNotLogged) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  EXPECT_EQ(client->probeObjectForKey("a", 1s), MessageResult(client->objectForKey("a")));
  serverTransport_.hang();
  const MessageResult late = client->probeObjectForKey("a", 1s);
  ASSERT_FALSE(late);
  EXPECT_EQ(late.error().name, platform::kNSPortTimeoutException);
  EXPECT_THAT(sink_.messagesAtLevel(platform::ASL_LEVEL_ERR), testing::IsEmpty());
}

TEST_F(KLXGlobalSettingsClientTest, AHungServerIsAskedAgainAfterForgetConnection) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  serverTransport_.hang();
  EXPECT_TRUE(client->objectForKey("a").isNil());
  serverTransport_.goOn();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(client->objectForKey("a").isNil()); }), 0s);
  client->forgetConnection();
  EXPECT_FALSE(client->objectForKey("a").isNil());
  EXPECT_TRUE(client->hasAnswered());
}

TEST_F(KLXGlobalSettingsClientTest, AnotherObjectsRetryInitialiserRaisesItsTimeOut) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  VantorDistantObject(environment(), std::nullopt, std::nullopt, std::nullopt, true);
  ASSERT_TRUE(client->isProxyValid());
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { client->objectForKey("a"); }), 300s);
}

TEST_F(KLXGlobalSettingsClientTest, AServersExceptionIsKeptAndTheValueIsNil) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), nullptr);
  EXPECT_EQ(client->sendMessage("boolForKey:", {"a"}), MessageResult(Value()));
  ASSERT_TRUE(client->recentException());
  EXPECT_EQ(client->recentException()->name, "ServerException");
}

TEST_F(KLXGlobalSettingsClientTest, WithoutAServerASettingIsNil) {
  const auto client = Client::ntpSettingsClientWithDelegate(environment(), &delegate_);
  EXPECT_TRUE(client->objectForKey("a").isNil());
  EXPECT_EQ(client->recentException()->name, "VantorNilProxyException");
  EXPECT_FALSE(client->hasAnswered());
}

TEST_F(KLXGlobalSettingsClientTest, AServersStartForgetsTheConnectionThenNotifiesTheDelegate) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::commonSettingsClientWithDelegate(environment(), &delegate_);
  ASSERT_TRUE(client->isProxyValid());
  const auto old = client->connection();
  delegate_.onRestart = [&](SettingsClient& told) {
    EXPECT_EQ(client->connection(), nullptr);
    // The delegate may send messages at once.
    EXPECT_EQ(told.objectForKey("a"), Value("objectForKey:"));
    EXPECT_NE(client->connection(), old);
  };
  post("com.vantor.CommonPreferences.didStart");
  EXPECT_THAT(delegate_.restarted, ElementsAre(client.get()));
}

TEST_F(KLXGlobalSettingsClientTest, ADelegateWithoutTheRestartMethodIsNotNotified) {
  const auto vended = vend("com.vantor.CommonPreferences", server_);
  DelegateWithoutMethods delegate;
  const auto client = Client::commonSettingsClientWithDelegate(environment(), &delegate);
  ASSERT_TRUE(client->isProxyValid());
  const auto old = client->connection();
  post("com.vantor.CommonPreferences.didStart");
  EXPECT_EQ(client->connection(), nullptr);
  // The restart has done nothing besides, so the next message connects again.
  EXPECT_EQ(client->objectForKey("a"), Value("objectForKey:"));
  EXPECT_NE(client->connection(), old);
  EXPECT_EQ(server_.messages.size(), 1u);
}

TEST_F(KLXGlobalSettingsClientTest, AClearedDelegateIsNotNotified) {
  const auto client = Client::commonSettingsClientWithDelegate(environment(), &delegate_);
  client->setDelegate(nullptr);
  post("com.vantor.CommonPreferences.didStart");
  EXPECT_THAT(delegate_.restarted, IsEmpty());
}

TEST_F(KLXGlobalSettingsClientTest, TheShorterInitialisersHaveNoNotificationAndNoDelegate) {
  const Client withDelegate(environment(), "server", &delegate_);
  EXPECT_EQ(withDelegate.remoteServerName(), "server");
  EXPECT_EQ(withDelegate.serverDidStartNotificationName(), std::nullopt);
  EXPECT_EQ(withDelegate.delegate(), &delegate_);
  const Client plain(environment(), "server");
  EXPECT_EQ(plain.remoteServerName(), "server");
  EXPECT_EQ(plain.serverDidStartNotificationName(), std::nullopt);
  EXPECT_EQ(plain.delegate(), nullptr);
}

TEST_F(KLXGlobalSettingsClientTest, TheDeprecatedFactoriesSaySoOnTheConsole) {
  struct Row {
    Client::Made (*factory)(const Client::Environment&, const platform::NSLogOutput&);
    const char* method;
    const char* settings;
    const char* server;
  };
  const Row rows[] = {
      {&Client::createUpdateSettingsClient, "createUpdateSettingsClient", "updateSettings",
       "com.vantor.UpdatePreferences"},
      {&Client::createCommonSettingsClient, "createCommonSettingsClient", "commonSettings",
       "com.vantor.CommonPreferences"},
      {&Client::createDeviceControlSettingsClient, "createDeviceControlSettingsClient",
       "deviceControlSettings", "com.vantor.DeviceControl"},
      {&Client::createAppControlSettingsClient, "createAppControlSettingsClient",
       "appControlSettings", "com.vantor.AppControl"},
  };
  for (const Row& row : rows) {
    console_.clear();
    const auto client = row.factory(environment(), nsLog_);
    EXPECT_EQ(client->remoteServerName(), row.server);
    EXPECT_EQ(client->serverDidStartNotificationName(), std::nullopt);
    EXPECT_EQ(client->delegate(), nullptr);
    ASSERT_EQ(console_.messages().size(), 1u);
    EXPECT_EQ(console_.messages().front().text,
              "+[KLXGlobalSettingsClient " + std::string(row.method) + "] is deprecated. Use " +
                  row.settings +
                  "ClientWithDelegate:(id<KLXGlobalSettingsClientDelegate>)delegate instead");
  }
}

TEST_F(KLXGlobalSettingsClientTest, ADeprecatedClientReconnectsWithoutNotifying) {
  auto vended = vend("com.vantor.CommonPreferences", server_);
  const auto client = Client::createCommonSettingsClient(environment(), nsLog_);
  client->setDelegate(&delegate_);
  EXPECT_EQ(client->objectForKey("a"), Value("objectForKey:"));
  vended->invalidate();
  loop_.runReady();
  vended = vend("com.vantor.CommonPreferences", server_);
  post("com.vantor.CommonPreferences.didStart");
  EXPECT_THAT(delegate_.restarted, IsEmpty());
  EXPECT_EQ(client->objectForKey("a"), Value("objectForKey:"));
}

TEST_F(KLXGlobalSettingsClientTest, ItAnswersForItsOwnMethodsAndForTheProtocols) {
  const Client client(environment(), "server");
  EXPECT_TRUE(client.respondsToSelector("setDelegate:"));
  EXPECT_TRUE(
      client.respondsToSelector("initWithServiceName:startUpNotificationName:andDelegate:"));
  EXPECT_TRUE(client.respondsToSelector("serverDidStart:"));  // the base class's
  EXPECT_TRUE(client.respondsToSelector("objectForKey:"));
  EXPECT_FALSE(client.respondsToSelector("objectsForKey:"));
  EXPECT_TRUE(client.conformsToProtocol("KLXGlobalSettingsProtocol"));
}

}  // namespace
