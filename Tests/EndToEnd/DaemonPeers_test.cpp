// Peers that do not belong to the product, or break the rules.

#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Tests/EndToEnd/CrudeClient.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

class DaemonPeers : public DaemonFixture {
 protected:
  static constexpr const char* kServers[] = {UserInterfaceClient::kServer,
                                             UserInterfaceClient::kInstallerServer,
                                             UserInterfaceClient::kAuthServer};

  std::string socketOf(std::string_view server) { return pathOfConnection(root_.path(), server); }

  // The daemon's private memory in kibibytes.
  long residentMemory() {
    std::ifstream file("/proc/" + std::to_string(root_.processOf(DaemonRoot::kDaemon)) + "/status");
    for (std::string name; file >> name;) {
      long size = 0;
      if (name == "RssAnon:" && file >> size) return size;
    }
    ADD_FAILURE() << "the daemon is gone";
    return 0;
  }

  // Expects the same daemon, able to work, and not much larger.
  void expectUndisturbed() {
    expectKilledServiceIsReported(DaemonRoot::label(0));
    EXPECT_EQ(root_.starts(), 1U);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(residentMemory(), memory_ + kMaxGrowth);
#endif
  }

  static constexpr long kMaxGrowth = 16 * 1024;
  long memory_ = 0;
};

TEST_F(DaemonPeers, EachServerRefusesAPeerWithoutTheToken) {
  start(1);
  memory_ = residentMemory();
  const Data right = systemProfileData(root_.system());
  Data oneBitOff = right;
  oneBitOff.back() ^= 1;
  for (const char* server : kServers) {
    SCOPED_TRACE(server);
    CrudeClient silent(root_, server);
    EXPECT_FALSE(silent.peer().call("services", {}, 60s));
    EXPECT_FALSE(silent.peer().call("retrieveKey", {}, 60s));
    for (const Data& wrong : {Data(), Data(right.begin(), right.end() - 1), oneBitOff,
                              clientProfileData(root_.system())}) {
      CrudeClient client(root_, server);
      const MessageResult answer = client.showToken(wrong);
      ASSERT_FALSE(answer);
      EXPECT_EQ(answer.error().name, kNSFailedAuthenticationException);
      EXPECT_FALSE(client.peer().call("services", {}, 60s));
    }
  }
  expectUndisturbed();
}

TEST_F(DaemonPeers, AStandardDBusClientGetsAnErrorAndNoData) {
  start(1);
  memory_ = residentMemory();
  for (const auto& [server, member] :
       {std::pair{UserInterfaceClient::kServer, "com.vantor.Peer.services"},
        {UserInterfaceClient::kAuthServer, "com.vantor.Peer.retrieveKey"},
        {UserInterfaceClient::kServer, "org.freedesktop.DBus.Introspectable.Introspect"}}) {
    ChildProgram client({"/usr/bin/dbus-send", "--peer=unix:path=" + socketOf(server),
                         "--print-reply", "--type=method_call", "/", member},
                        {});
    EXPECT_NE(client.waitForExit().number, 0);
    EXPECT_EQ(client.restOfOutput(), "");
    EXPECT_THAT(client.errors(), HasSubstr("Error"));
  }
  expectUndisturbed();
}

TEST_F(DaemonPeers, IncompleteAndOversizedFramesHarmNobody) {
  start(1);
  memory_ = residentMemory();
  const auto call = encodeMessage("services", {}, PeerMessageKind::kTwoWay);
  ASSERT_TRUE(call);
  const std::string frame = RawPeer::marshalled(call->message.get());
  RawPeer half(socketOf(UserInterfaceClient::kServer));
  half.authenticate();
  EXPECT_TRUE(half.write(frame.substr(0, frame.size() / 2)));

  RawPeer huge(socketOf(UserInterfaceClient::kServer));
  huge.authenticate();
  std::string header = frame;
  const std::uint32_t gigabyte = 1U << 30;
  std::memcpy(header.data() + 4, &gigabyte, sizeof gigabyte);  // the body's length
  EXPECT_TRUE(huge.write(header));
  EXPECT_TRUE(huge.awaitClose());
  expectUndisturbed();
  EXPECT_TRUE(half.awaitClose());  // Its time to show a token is over.
}

TEST_F(DaemonPeers, TenThousandConnectionsLockNobodyOut) {
  constexpr std::size_t kConnections = 10'000;
  const auto limit = raiseDescriptorLimit();
  rlimit now{};
  ::getrlimit(RLIMIT_NOFILE, &now);
  if (!limit || now.rlim_cur < kConnections + 200) GTEST_SKIP() << "too few descriptors";
  start(1);
  memory_ = residentMemory();
  std::vector<UniqueFd> sockets;
  while (sockets.size() < kConnections && !HasFailure()) {
    auto socket = connectToSocket(socketOf(UserInterfaceClient::kServer), 60s);
    ASSERT_TRUE(socket) << describe(socket.error());
    sockets.push_back(std::move(*socket));
  }
  UserInterfaceClient another(root_);
  EXPECT_TRUE(another.ask("services"));
  expectUndisturbed();
}

TEST_F(DaemonPeers, APeerThatStopsReadingIsDisconnected) {
  start(1);
  memory_ = residentMemory();
  RawPeer peer(socketOf(UserInterfaceClient::kServer));
  peer.authenticate();
  const auto token =
      encodeMessage(CrudeClient::kAuthenticate, {Value(systemProfileData(root_.system()))},
                    PeerMessageKind::kTwoWay);
  const auto call = encodeMessage("services", {}, PeerMessageKind::kTwoWay);
  ASSERT_TRUE(token && call);
  EXPECT_TRUE(peer.write(RawPeer::marshalled(token->message.get())));
  const std::string frame = RawPeer::marshalled(call->message.get(), 2);
  // Each answer is some hundred bytes.
  constexpr int kCalls = 100'000;
  int calls = 0;
  while (calls < kCalls && peer.write(frame)) ++calls;
  EXPECT_LT(calls, kCalls);
  EXPECT_TRUE(peer.awaitClose());
  expectUndisturbed();
}

TEST_F(DaemonPeers, SelectorsOutsideTheProtocolRaiseAndHarmNobody) {
  start(1);
  memory_ = residentMemory();
  for (const auto& [server, selectors] :
       {std::pair{UserInterfaceClient::kServer,
                  std::vector<std::string>{"retrieveKey", "evaluateServices", "shutdownServices:",
                                           "setSecret:", "dealloc", "init", ":", "services:"}},
        {UserInterfaceClient::kInstallerServer,
         {"retrieveKey", "services", "stopServices:", "registerClient:"}},
        {UserInterfaceClient::kAuthServer, {"services", "evaluateServices", "setRetrieveKey:"}}}) {
    UserInterfaceClient client(root_, server);
    for (const std::string& selector : selectors) {
      const bool takesOne = selector.ends_with(':');
      const auto answer = client.ask(selector, takesOne ? Array{Value(Array{})} : Array{});
      ASSERT_FALSE(answer) << server << " " << selector;
      EXPECT_EQ(answer.error().name, kNSInvalidArgumentException) << selector;
      EXPECT_TRUE(client.isConnected()) << selector;
    }
  }
  UserInterfaceClient secret(root_, UserInterfaceClient::kAuthServer);
  const auto key = secret.ask("retrieveKey");
  ASSERT_TRUE(key && key->data());
  EXPECT_EQ(key->data()->size(), 8U);
  expectUndisturbed();
}

}  // namespace
}  // namespace platform
