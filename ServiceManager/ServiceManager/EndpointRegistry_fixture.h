#pragma once

// The registry of endpoints, by itself and in a daemon that other programs speak to.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"
#include "ServiceManager/ServiceManager/StartUp_fixture.h"

// A listener's endpoint, which the registry only stores.
struct NamedEndpoint final : platform::NSXPCListenerEndpoint {
  bool hasListener() const override { return lives; }
  bool lives = true;
};

class EndpointRegistryTest : public StartUpFixture {
 protected:
  EndpointRegistryTest() {
    observations_.push_back(
        otherCenter_->addObserver(kEndpointRequestNotification, std::nullopt,
                                  [this](const platform::DistributedNotification& notification) {
                                    requests_.push_back(notification);
                                  }));
  }

  ORBServiceManagerXPCHandler& handler() {
    if (!handler_) {
      handler_ =
          std::make_shared<ORBServiceManagerXPCHandler>(loop_, system_, *center_, protocols_);
    }
    return *handler_;
  }
  platform::Value passkey() const { return systemProfileData(system_); }

  // The reply; nothing if it was not called.
  using Lookup = std::optional<ORBServiceManagerXPCHandler::Endpoint>;
  Lookup lookUp(const platform::Value& passkey, const std::optional<std::string>& name) {
    Lookup found;
    handler().xpcListenerEndpoint(
        passkey, name,
        [&](const ORBServiceManagerXPCHandler::Endpoint& endpoint) { found = endpoint; });
    loop_.runReady();
    return found;
  }
  std::string registerAs(const ORBServiceManagerXPCHandler::Endpoint& endpoint,
                         const platform::Value& passkey, const std::optional<std::string>& name) {
    std::string answer = "none";
    handler().registerXPCListenerEndpoint(
        endpoint, passkey, name, [&](bool success, const std::optional<std::string>& message) {
          answer = (success ? "YES " : "NO ") + message.value_or("nil");
        });
    return answer;
  }
  // The lines without their places in the source.
  std::vector<std::string> lines() {
    queues_.runPending();
    std::vector<std::string> lines;
    for (const auto& message : logSink_.take()) {
      EXPECT_TRUE(message.text.starts_with("[ORBServiceManagerXPCHandler.cpp:")) << message.text;
      lines.push_back(std::to_string(message.level) +
                      message.text.substr(message.text.find("] ") + 1));
    }
    return lines;
  }

  std::vector<platform::DistributedNotification> requests_;
  std::shared_ptr<ORBServiceManagerXPCHandler> handler_;
  const std::shared_ptr<NamedEndpoint> one_ = std::make_shared<NamedEndpoint>();
  const ORBServiceManagerXPCHandler::Endpoint other_ = std::make_shared<NamedEndpoint>();
};

// The daemon while it starts, with another process that sends requests.
class XPCStartUpTest : public EndpointRegistryTest {
 protected:
  std::shared_ptr<platform::NSXPCConnection> connect(
      std::shared_ptr<platform::NSXPCConnection> connection, const char* protocol) {
    connection->setRemoteObjectInterface(protocols_.find(protocol));
    connection->setInvalidationHandler([this] { invalid_ = true; });
    connection->resume();
    return connection;
  }
  std::optional<platform::Array> call(platform::NSXPCConnection& connection,
                                      std::string_view selector, platform::Array arguments) {
    std::optional<platform::Array> reply;
    connection.sendMessage(
        selector, std::move(arguments), [&](platform::Array values) { reply = std::move(values); },
        [](const platform::NSError&) {});
    loop_.runReady();
    return reply;
  }

  platform::FakeXPC client_{network_, {300, 501, 20}, systemLog_};
  bool invalid_ = false;
};
