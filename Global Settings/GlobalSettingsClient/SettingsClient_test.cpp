#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "Global Settings/GlobalSettingsClient/FakeSettingsClient_fixture.h"
#include "Global Settings/GlobalSettingsClient/FakeSettingsServer_fixture.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Global Settings/GlobalSettingsClient/SettingsClient_contract.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using platform::Value;

class FakeSettings final : public SettingsUnderTest {
 public:
  SettingsClient& client() override { return client_; }
  void set(const std::string& key, Value value) override { settings_[key] = std::move(value); }
  void remove(const std::string& key) override { settings_.erase(key); }

 private:
  std::map<std::string, Value> settings_;
  FakeSettingsClient client_{settings_};
};

// The server is another program.
class ServedSettings final : public SettingsUnderTest {
 public:
  SettingsClient& client() override { return client_; }
  void set(const std::string& key, Value value) override {
    server_.settings[key] = std::move(value);
  }
  void remove(const std::string& key) override { server_.settings.erase(key); }

 private:
  static constexpr char kName[] = "com.vantor.CommonPreferences";

  platform::FakeSystemInformation system_;
  platform::ProtocolTable protocols_ = settingsProtocols();
  platform::VirtualRunLoop loop_;
  platform::FakeNotificationBus bus_{loop_};
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport transport_{network_, {100, 0, 0}};
  std::function<std::string(std::string_view)> path_ = [](std::string_view name) {
    return std::string(name);
  };
  platform::ConnectedProgram program_{loop_, transport_, path_};
  std::unique_ptr<platform::DistributedNotificationCenter> distributed_ =
      bus_.makeCenter(program_.log);
  FakeSettingsServer server_{{network_, path_, protocols_, system_}, kName};
  KLXGlobalSettingsClient client_{
      {loop_, program_.connections, *distributed_, program_.center, protocols_, system_}, kName};
};

std::unique_ptr<SettingsUnderTest> makeFakeSettings() { return std::make_unique<FakeSettings>(); }
std::unique_ptr<SettingsUnderTest> makeServedSettings() {
  return std::make_unique<ServedSettings>();
}

INSTANTIATE_TEST_SUITE_P(Fake, SettingsClientContract, testing::Values(&makeFakeSettings));
INSTANTIATE_TEST_SUITE_P(Served, SettingsClientContract, testing::Values(&makeServedSettings));

class SmallestClient final : public SettingsClient {
  Value objectForKey(std::string_view) override { return {}; }
  platform::MessageResult probeObjectForKey(std::string_view, platform::Duration) override {
    return Value();
  }
  void forgetConnection() override {}
};

TEST(SettingsClientTest, AClientIsNotHungByDefault) {
  SmallestClient client;
  SettingsClient& settings = client;
  EXPECT_FALSE(settings.isServerHung());
  EXPECT_TRUE(settings.hasAnswered());
}

TEST(FakeSettingsClientTest, CountsTheForgottenConnections) {
  const std::map<std::string, Value> none;
  FakeSettingsClient client(none);
  EXPECT_EQ(client.forgetCalls, 0);
  client.forgetConnection();
  client.forgetConnection();
  EXPECT_EQ(client.forgetCalls, 2);
}

}  // namespace
