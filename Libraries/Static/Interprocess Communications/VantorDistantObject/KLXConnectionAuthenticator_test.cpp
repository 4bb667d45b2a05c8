#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Logger/Logger.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

namespace {

using namespace std::chrono_literals;
using platform::Data;
using platform::FakeSystemInformation;
using platform::NSConnection;
using platform::Value;

constexpr char kSelector[] = "NSConnectionAuthenticate:";

class KLXConnectionAuthenticatorTest : public testing::Test {
 protected:
  KLXConnectionAuthenticatorTest() {
    connection_->setDelegate(&authenticator_);
    EXPECT_TRUE(connection_->registerName("server"));
  }

  // The server's reply to a client that shows `data`.
  platform::MessageResult show(const Value& data) {
    peer_ = std::move(clientTransport_.connect("server", {}).value());
    return peer_->call(kSelector, {data}, 1s);
  }
  void expectRefused(const Value& data) {
    const auto result = show(data);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().name, platform::kNSFailedAuthenticationException);
    EXPECT_TRUE(connection_->childConnections().empty());
  }

  FakeSystemInformation system_;
  KLXConnectionAuthenticator authenticator_{system_};
  platform::VirtualRunLoop loop_;
  platform::FakePeerNetwork network_{loop_};
  platform::FakePeerTransport serverTransport_{network_, {100, 0, 0}};
  platform::FakePeerTransport clientTransport_{network_, {200, 0, 0}};
  platform::ConnectedProgram server_{loop_, serverTransport_,
                                     [](std::string_view name) { return std::string(name); }};
  LoggerBinding binding_{server_.log};  // An authenticator's line would go this way.
  std::shared_ptr<NSConnection> connection_ = server_.connections.makeConnection();
  std::unique_ptr<platform::PeerConnection> peer_;
};

TEST_F(KLXConnectionAuthenticatorTest, AClientWithTheTokenIsAcceptedAndGetsTheServers) {
  EXPECT_EQ(show(systemProfileData(system_)), platform::MessageResult(clientProfileData(system_)));
}

TEST_F(KLXConnectionAuthenticatorTest, AChildConnectionIsAuthenticatedByTheSameDelegate) {
  ASSERT_TRUE(show(systemProfileData(system_)));
  ASSERT_EQ(connection_->childConnections().size(), 1u);
  NSConnection& child = *connection_->childConnections().front();
  EXPECT_EQ(child.delegate(), &authenticator_);
  // A child of the child, too.
  const auto grandchild = server_.connections.makeConnection();
  EXPECT_TRUE(authenticator_.connection(child, *grandchild));
  EXPECT_EQ(grandchild->delegate(), &authenticator_);
}

TEST_F(KLXConnectionAuthenticatorTest, AForwardingDelegateBecomesTheChildsDelegate) {
  struct Passing final : platform::NSConnectionDelegate {
    explicit Passing(KLXConnectionAuthenticator& authenticator) : to(authenticator) {}
    bool connection(NSConnection& parent, NSConnection& shouldMakeNewConnection) override {
      return to.connection(parent, shouldMakeNewConnection);
    }
    Data authenticationDataForComponents(const platform::Array& components) override {
      return to.authenticationDataForComponents(components);
    }
    bool authenticateComponents(const platform::Array& components, const Data& withData) override {
      return to.authenticateComponents(components, withData);
    }
    KLXConnectionAuthenticator& to;
  } passing(authenticator_);
  connection_->setDelegate(&passing);
  EXPECT_TRUE(show(systemProfileData(system_)));
  EXPECT_EQ(connection_->childConnections().front()->delegate(), &passing);
}

TEST_F(KLXConnectionAuthenticatorTest, AWrongTokenIsRefusedWithoutALine) {
  expectRefused(clientProfileData(system_));
  // The connection layer logs one line.
  EXPECT_EQ(server_.sink.messages().size(), 1u);
  EXPECT_EQ(server_.sink.messagesOf("NSConnection").size(), 1u);
}

TEST_F(KLXConnectionAuthenticatorTest, EveryByteOfTheTokenCounts) {
  const Data token = systemProfileData(system_);
  for (std::size_t at = 0; at < token.size(); ++at) {
    Data wrong = token;
    wrong[at] ^= 1;
    EXPECT_FALSE(authenticator_.authenticateComponents({}, wrong)) << at;
  }
  EXPECT_FALSE(authenticator_.authenticateComponents({}, Data(token.begin(), token.end() - 1)));
  Data longer = token;
  longer.push_back(0);
  EXPECT_FALSE(authenticator_.authenticateComponents({}, longer));
  EXPECT_FALSE(authenticator_.authenticateComponents({}, {}));
}

TEST_F(KLXConnectionAuthenticatorTest, TheComponentsAreIgnored) {
  const Data token = systemProfileData(system_);
  EXPECT_TRUE(authenticator_.authenticateComponents({}, token));
  EXPECT_TRUE(authenticator_.authenticateComponents({Value("anything"), 7}, token));
  EXPECT_EQ(authenticator_.authenticationDataForComponents({Value("anything")}),
            authenticator_.authenticationDataForComponents({}));
}

TEST_F(KLXConnectionAuthenticatorTest, ProcessesOnEitherSideOfARebootCannotTalk) {
  const Data before = systemProfileData(system_);
  system_.setBootTime(FakeSystemInformation::kBootTime + 1);
  expectRefused(before);
  EXPECT_TRUE(show(systemProfileData(system_)));
}

TEST_F(KLXConnectionAuthenticatorTest, WithAnUnreadableBootTimeBothSidesStillAgree) {
  system_.setBootTime(
      std::unexpected(platform::Error{platform::ErrorCode::kSystem, EACCES, "/proc/stat"}));
  testing::internal::CaptureStderr();
  const auto result = show(systemProfileData(system_));
  EXPECT_EQ(result, platform::MessageResult(clientProfileData(system_)));
  testing::internal::GetCapturedStderr();  // The system's error, once for each token.
}

}  // namespace
