#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"

// A table of the settings servers' protocol alone.
inline platform::ProtocolTable settingsProtocols() {
  platform::ProtocolTable protocols;
  addGlobalSettingsProtocol(protocols);
  return protocols;
}

// A program that answers "objectForKey:" from settings that the test changes.
class FakeSettingsServer final : public platform::MessageReceiver {
 public:
  // The program shares it with its clients. It outlives the program.
  struct Environment {
    platform::FakePeerNetwork& network;
    platform::NamedConnections::PlaceOfName path;
    const platform::ProtocolTable& protocols;
    const platform::SystemInformation& system;
  };

  FakeSettingsServer(const Environment& environment, const std::string& name)
      : transport(environment.network, {200, 0, 0}),
        program_(environment.network.loop(), transport, environment.path),
        authenticator_(environment.system),
        connection_(program_.connections.makeConnection()) {
    connection_->setDelegate(&authenticator_);
    connection_->setRootObject(std::make_shared<platform::NSProtocolChecker>(
        this, environment.protocols.find(kKLXGlobalSettingsProtocol)));
    EXPECT_TRUE(connection_->registerName(name));
  }

  platform::MessageResult receiveMessage(std::string_view selector,
                                         const platform::Array& arguments) override {
    EXPECT_EQ(selector, "objectForKey:");
    const std::string* key = arguments.at(0).string();
    const auto found = key ? settings.find(*key) : settings.end();
    return found == settings.end() ? platform::Value() : found->second;
  }

  // The clients that are connected.
  std::size_t clients() const { return connection_->childConnections().size(); }

  std::map<std::string, platform::Value> settings;
  platform::FakePeerTransport transport;

 private:
  platform::ConnectedProgram program_;
  KLXConnectionAuthenticator authenticator_;
  std::shared_ptr<platform::NSConnection> connection_;
};
