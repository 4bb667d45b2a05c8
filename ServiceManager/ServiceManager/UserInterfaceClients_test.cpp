#include "ServiceManager/ServiceManager/UserInterfaceClients.h"

#include <deque>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/Logging/UserLines.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "ServiceManager/ServiceManager/UserInterface_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kLabel[] = "com.example.agent";
constexpr std::size_t kClientLimit = 1024;
constexpr std::size_t kLimitOfUser = 256;
constexpr char kWillRegister[] = "7 Will register a user interface client remote proxy";
constexpr char kDidRegister[] = "7 Did register a user interface client remote proxy";
constexpr char kRemoving[] = "7 Attempting to remove an abandoned remote user client";
constexpr char kRemoved[] = "7 Did remove an abandoned remote user client";

Value noticeOf(std::int64_t status) { return Dictionary{{"Label", kLabel}, {"status", status}}; }
Value noticeOf(std::int64_t status, std::int64_t process) {
  return Dictionary{{"Label", kLabel}, {"status", status}, {"PID", process}};
}

class UserInterfaceClientsTest : public testing::Test {
 protected:
  UserInterfaceClientsTest() { addServiceManagerProtocols(protocols_); }

  void notifyRun() { clients_.notifyClientsOfService(kLabel, UserInterfaceClients::kJobRuns, 77); }
  void notifyEnd() {
    clients_.notifyClientsOfService(kLabel, UserInterfaceClients::kJobHasEnded, 77);
  }

  Logger2Lines lines_;
  ProtocolTable protocols_;
  UserInterfaceClients clients_{0};
};

// Registering.

TEST_F(UserInterfaceClientsTest, AClientIsRegisteredWithTwoLines) {
  EXPECT_THAT(clients_.userClients(), IsEmpty());
  const UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  EXPECT_THAT(clients_.userClients(), ElementsAre(window.proxy));
  EXPECT_THAT(lines_.take(), ElementsAre(kWillRegister, kDidRegister));
}

TEST_F(UserInterfaceClientsTest, NilIsNotRegistered) {
  clients_.registerClient(nullptr);
  EXPECT_THAT(clients_.userClients(), IsEmpty());
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(UserInterfaceClientsTest, AClientThatRegistersTwiceIsNotifiedTwice) {
  const UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  clients_.registerClient(window.proxy);
  notifyRun();
  EXPECT_THAT(window.notices, ElementsAre(noticeOf(1, 77), noticeOf(1, 77)));
}

TEST_F(UserInterfaceClientsTest, RegistrationsEndAtALimit) {
  const UserInterface window(protocols_);
  for (std::size_t number = 1; number < kClientLimit; ++number) {
    clients_.registerClient(window.proxy);
  }
  EXPECT_EQ(clients_.userClients().size(), kClientLimit - 1);
  clients_.registerClient(window.proxy);
  EXPECT_EQ(clients_.userClients().size(), kClientLimit);
  lines_.take();
  clients_.registerClient(window.proxy);
  EXPECT_EQ(clients_.userClients().size(), kClientLimit);
  EXPECT_THAT(lines_.take(), ElementsAre(kWillRegister,
                                         "7 Unable to register user interface client remote proxy: "
                                         "Exception: there are 1024 clients"));
}

TEST_F(UserInterfaceClientsTest, AtTheLimitDisconnectedClientsMakeRoom) {
  VirtualRunLoop loop;
  FakePeerNetwork network(loop);
  FakePeerTransport transport(network, {100, 0, 0});
  ConnectedProgram program(loop, transport,
                           [](std::string_view name) { return std::string(name); });
  const auto connection = program.connections.makeConnection();
  const auto passing =
      std::make_shared<NSDistantObject>(connection, NSDistantObject::Description{1, "Window", {}});
  for (std::size_t number = 1; number < kClientLimit; ++number) clients_.registerClient(passing);
  const UserInterface staying(protocols_);
  const UserInterface late(protocols_);
  clients_.registerClient(staying.proxy);
  clients_.registerClient(late.proxy);
  EXPECT_EQ(clients_.userClients().size(), kClientLimit);
  EXPECT_EQ(clients_.userClients().back(), staying.proxy);
  connection->invalidate();
  clients_.registerClient(late.proxy);
  EXPECT_THAT(clients_.userClients(), ElementsAre(staying.proxy, late.proxy));
}

TEST_F(UserInterfaceClientsTest, AUsersRegistrationsAndTheirLinesAreLimited) {
  VirtualRunLoop loop;
  FakePeerNetwork network(loop);
  FakePeerTransport transport(network, {100, 0, 0});
  FakePeerTransport users(network, {200, 501, 20});
  ConnectedProgram program(loop, transport, [](std::string_view name) {
    return ListenerPlace(std::string(name), PeerAudience::all(), {});
  });
  TokenDelegate delegate("server", "client");
  const auto server = program.connections.makeConnection();
  server->setDelegate(&delegate);
  ASSERT_TRUE(server->registerName("server"));
  const auto peer = users.connect("server", {});
  ASSERT_TRUE(peer);
  ASSERT_EQ(server->childConnections().size(), 1u);
  const auto window = std::make_shared<NSDistantObject>(
      server->childConnections().front(), NSDistantObject::Description{1, "Window", {}});
  const auto lines = std::make_shared<UserLines>(0, loop, program.log, "Ident");
  UserInterfaceClients clients(0, [&](std::uint32_t user) { return lines->mayWrite(user); });
  for (int i = 0; i < 1000; ++i) clients.registerClient(window);
  EXPECT_EQ(lines_.take().size(), UserLines::kLinesPerUser);
  EXPECT_EQ(clients.userClients().size(), kLimitOfUser);
  const UserInterface roots(protocols_);
  clients.registerClient(roots.proxy);
  EXPECT_EQ(clients.userClients().back(), roots.proxy);
  loop.advanceBy(UserLines::kPeriod);
  EXPECT_EQ(program.sink.count("1990 lines about requests of user 501 were left out"), 1u);
}

// Notices.

TEST_F(UserInterfaceClientsTest, ANoticeOfARunningServiceNamesItsProcess) {
  const UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  notifyRun();
  EXPECT_THAT(window.notices, ElementsAre(noticeOf(1, 77)));
}

TEST_F(UserInterfaceClientsTest, ANoticeOfAnyOtherStatusNamesNoProcess) {
  const UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  notifyEnd();
  clients_.notifyClientsOfService(kLabel, 2, 77);
  EXPECT_THAT(window.notices, ElementsAre(noticeOf(0), noticeOf(2)));
}

TEST_F(UserInterfaceClientsTest, WithoutALabelNobodyIsNotified) {
  const UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  clients_.notifyClientsOfService(std::nullopt, UserInterfaceClients::kJobRuns, 77);
  EXPECT_THAT(window.notices, IsEmpty());
}

TEST_F(UserInterfaceClientsTest, WithoutAClientANoticeDoesNothing) {
  notifyRun();
  EXPECT_THAT(lines_.take(), IsEmpty());
}

TEST_F(UserInterfaceClientsTest, AClientOfAnotherProtocolIsRemoved) {
  const UserInterface stranger(protocols_, kORBServiceManagerUserInterfaceProtocol);
  clients_.registerClient(stranger.proxy);
  lines_.take();
  notifyRun();
  EXPECT_THAT(stranger.notices, IsEmpty());
  EXPECT_THAT(clients_.userClients(), IsEmpty());
  EXPECT_THAT(lines_.take(), ElementsAre(kRemoving, kRemoved));
}

TEST_F(UserInterfaceClientsTest, AClientThatRaisesIsRemoved) {
  std::deque<UserInterface> windows;
  for (int number = 0; number < 5; ++number) windows.emplace_back(protocols_);
  for (const UserInterface& window : windows) clients_.registerClient(window.proxy);
  // Neighbours, the first and the last: none hides another.
  for (const int failing : {0, 1, 4}) {
    windows[failing].exception = NSException{kNSPortTimeoutException, "hangs", {}};
  }
  lines_.take();
  notifyRun();
  for (const UserInterface& window : windows) EXPECT_EQ(window.notices.size(), 1u);
  EXPECT_THAT(clients_.userClients(), ElementsAre(windows[2].proxy, windows[3].proxy));
  EXPECT_THAT(lines_.take(),
              ElementsAre(kRemoving, kRemoved, kRemoving, kRemoved, kRemoving, kRemoved));
  notifyEnd();
  EXPECT_EQ(windows[0].notices.size(), 1u);
  EXPECT_EQ(windows[3].notices.size(), 2u);
}

TEST_F(UserInterfaceClientsTest, AHungClientRegisteredTwiceIsWaitedForOnce) {
  UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  clients_.registerClient(window.proxy);
  window.exception = NSException{kNSPortTimeoutException, "hangs", {}};
  notifyRun();
  EXPECT_EQ(window.notices.size(), 1u);
  EXPECT_THAT(clients_.userClients(), IsEmpty());
}

TEST_F(UserInterfaceClientsTest, AClientRegisteredDuringANoticeGetsTheNext) {
  const UserInterface late(protocols_);
  UserInterface window(protocols_);
  clients_.registerClient(window.proxy);
  window.onNotice = [&] { clients_.registerClient(late.proxy); };
  notifyRun();
  EXPECT_THAT(late.notices, IsEmpty());
  window.onNotice = nullptr;
  notifyEnd();
  EXPECT_THAT(late.notices, ElementsAre(noticeOf(0)));
}

}  // namespace
