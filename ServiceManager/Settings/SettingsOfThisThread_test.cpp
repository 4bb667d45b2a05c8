#include "ServiceManager/Settings/SettingsOfThisThread.h"

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/FakeSettingsServer_fixture.h"
#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using platform::Value;

struct CountingDelegate final : KLXGlobalSettingsClientDelegate {
  void globalSettingsServerDidRestart(SettingsClient&) override { ++restarts; }
  int restarts = 0;
};

class SettingsOfThisThreadTest : public testing::Test {
 protected:
  static std::string nameOf(std::string_view name) { return std::string(name); }

  void startServer() {
    server_.emplace(FakeSettingsServer::Environment{network_, &nameOf, protocols_, system_},
                    "com.vantor.CmxPreferences");
    server_->settings["mode"] = "on";
  }
  void stopServer() {
    server_.reset();
    loop_.runReady();
  }

  // Calls `ask` with a client that belongs to the thread of `transport`.
  void withClient(platform::PeerTransport& transport,
                  const std::function<void(SettingsClient&)>& ask) {
    bool isAsked = false;
    withSettingsOfThisThread({loop_, transport, log_, &nameOf, protocols_, system_},
                             [&](const SettingsClientFactories& factories) {
                               const auto client =
                                   (*factories.find("cmxSettingsClientWithDelegate:"))(delegate_);
                               ASSERT_TRUE(client);
                               ask(**client);
                               isAsked = true;
                             });
    EXPECT_TRUE(isAsked);
    loop_.runReady();
  }

  platform::FakeLogSink sink_;
  platform::SystemLog log_{sink_, "test"};
  platform::FakeSystemInformation system_;
  const platform::ProtocolTable protocols_ = settingsProtocols();
  platform::VirtualRunLoop loop_;
  platform::FakePeerNetwork network_{loop_};
  // Two threads of one process have a transport each.
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  platform::FakePeerTransport otherTransport_{network_, {100, 0, 0}};
  std::optional<FakeSettingsServer> server_;
  CountingDelegate delegate_;
};

TEST_F(SettingsOfThisThreadTest, EveryDomainHasAFactory) {
  std::size_t domains = 0;
  withSettingsOfThisThread({loop_, transport_, log_, &nameOf, protocols_, system_},
                           [&](const SettingsClientFactories& factories) {
                             for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) {
                               const std::string selector =
                                   std::string(domain.prefix) + "SettingsClientWithDelegate:";
                               EXPECT_NE(factories.find(selector), nullptr) << selector;
                               ++domains;
                             }
                           });
  EXPECT_EQ(domains, std::size(kGlobalSettingsDomains));
}

TEST_F(SettingsOfThisThreadTest, AServerAnswers) {
  startServer();
  withClient(transport_, [&](SettingsClient& client) {
    EXPECT_EQ(client.objectForKey("mode"), Value("on"));
    EXPECT_TRUE(client.objectForKey("absent").isNil());
    server_->settings["mode"] = "off";
    EXPECT_EQ(client.objectForKey("mode"), Value("off"));
  });
}

TEST_F(SettingsOfThisThreadTest, WithoutAServerASettingIsNil) {
  withClient(transport_, [&](SettingsClient& client) {
    EXPECT_TRUE(client.objectForKey("mode").isNil());
    EXPECT_FALSE(client.probeObjectForKey("mode", std::chrono::seconds(1)));
  });
}

TEST_F(SettingsOfThisThreadTest, AClientGetsNoNoticeOfARestart) {
  startServer();
  withClient(transport_, [&](SettingsClient& client) {
    EXPECT_EQ(client.objectForKey("mode"), Value("on"));
    stopServer();
    EXPECT_TRUE(client.objectForKey("mode").isNil());
    startServer();
    loop_.runReady();
    EXPECT_EQ(delegate_.restarts, 0);
    EXPECT_EQ(client.objectForKey("mode"), Value("on"));
  });
}

TEST_F(SettingsOfThisThreadTest, TwoThreadsShareNoConnection) {
  startServer();
  withClient(transport_, [&](SettingsClient& client) {
    EXPECT_EQ(client.objectForKey("mode"), Value("on"));
    EXPECT_EQ(server_->clients(), 1u);
    withClient(otherTransport_, [&](SettingsClient& other) {
      EXPECT_EQ(other.objectForKey("mode"), Value("on"));
      EXPECT_EQ(server_->clients(), 2u);
      otherTransport_.die();
      EXPECT_TRUE(other.objectForKey("mode").isNil());
      EXPECT_EQ(client.objectForKey("mode"), Value("on"));
    });
  });
}

TEST_F(SettingsOfThisThreadTest, TheConnectionsEndWithTheCall) {
  startServer();
  for (int call = 0; call < 2; ++call) {
    withClient(transport_, [&](SettingsClient& client) {
      EXPECT_EQ(client.objectForKey("mode"), Value("on"));
      EXPECT_EQ(server_->clients(), 1u);
    });
    EXPECT_EQ(server_->clients(), 0u);
  }
}

// A server that hangs costs only the time-out, although nobody runs the loop.
TEST_F(SettingsOfThisThreadTest, AHungServersSettingIsNil) {
  startServer();
  server_->transport.hang();
  withClient(transport_,
             [&](SettingsClient& client) { EXPECT_TRUE(client.objectForKey("mode").isNil()); });
  server_->transport.goOn();
  // Only the connections of that call know that it hung.
  withClient(transport_,
             [&](SettingsClient& client) { EXPECT_EQ(client.objectForKey("mode"), Value("on")); });
}

}  // namespace
