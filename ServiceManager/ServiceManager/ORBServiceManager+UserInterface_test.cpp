#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kAbandoning[] = "7 Attempting to remove an abandoned remote user client";
constexpr char kAbandoned[] = "7 Did remove an abandoned remote user client";

class UserInterfaceTest : public ServiceManagerFixture {
 protected:
  UserInterfaceTest() {
    use(catalogue());
    useHealth();
  }

  void notify(std::int64_t status, std::int64_t process) {
    manager().notifyClientsOfService(kAgent, status, process);
  }
};

// Stopping and starting.

TEST_F(UserInterfaceTest, AStoppedServiceStaysStoppedUntilItIsStarted) {
  manager().evaluateSystemConfiguration();
  takeReports();
  manager().stopServices({kAgent});
  EXPECT_TRUE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  loop_.runReady();  // Its exit makes everything be evaluated.
  manager().evaluateSystemConfiguration();
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent", "forced stop com.example.agent",
                                         "start com.example.configd", "start com.example.helper",
                                         "start com.example.configd", "start com.example.helper"));
  EXPECT_EQ(countInLog("com.example.agent is not actively being monitored as per the request of "
                       "the user interface"),
            2u);

  manager().startServices({kAgent});
  EXPECT_FALSE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(UserInterfaceTest, ServicesAreStoppedAndStartedInTheirOrder) {
  manager().evaluateSystemConfiguration();
  takeReports();
  manager().stopServices({kHelper, 5, kAgent});
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.helper", "stop com.example.agent"));
  enterMode(ORBOperatingModeInstaller);
  loop_.runReady();
  takeReports();
  manager().startServices({kHelper, Value::nullMarker(), kAgent});
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.helper", "start com.example.agent"));
}

TEST_F(UserInterfaceTest, AServiceOutsideTheCatalogueIsNotStarted) {
  manager().startServices({"com.example.unknown"});
  manager().stopServices({"com.example.unknown"});
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_FALSE(manager().monitoredProcessesInfo().contains("com.example.unknown"));
}

// Registering.

TEST_F(UserInterfaceTest, AClientIsRegisteredWithTwoLines) {
  const auto client = registerClient();
  EXPECT_THAT(manager().userClients(), ElementsAre(client->proxy));
  EXPECT_THAT(takeLog(), ElementsAre("7 Will register a user interface client remote proxy",
                                     "7 Did register a user interface client remote proxy"));
}

TEST_F(UserInterfaceTest, NilIsNotRegistered) {
  manager().registerClient(nullptr);
  EXPECT_THAT(manager().userClients(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(UserInterfaceTest, AClientMayRegisterTwiceAndIsToldTwice) {
  const auto client = registerClient();
  manager().registerClient(client->proxy);
  notify(1, 77);
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, 77), notice(kAgent, 1, 77)));
}

TEST_F(UserInterfaceTest, RegistrationsEndAtALimit) {
  constexpr std::size_t kLimit = 1024;
  const auto client = std::make_shared<UserInterface>(protocols_);
  for (std::size_t number = 1; number < kLimit; ++number) manager().registerClient(client->proxy);
  EXPECT_EQ(manager().userClients().size(), kLimit - 1);
  manager().registerClient(client->proxy);
  EXPECT_EQ(manager().userClients().size(), kLimit);
  takeLog();
  manager().registerClient(client->proxy);
  EXPECT_EQ(manager().userClients().size(), kLimit);
  EXPECT_THAT(takeLog(), ElementsAre("7 Will register a user interface client remote proxy",
                                     "7 Unable to register user interface client remote proxy: "
                                     "Exception: there are 1024 clients"));
}

TEST_F(UserInterfaceTest, ClientsThatHaveGoneMakeRoomForNewOnesAtTheLimit) {
  const auto connection = connections_.makeConnection();
  const auto passing =
      std::make_shared<NSDistantObject>(connection, NSDistantObject::Description{1, "Window", {}});
  for (std::size_t number = 1; number < 1024; ++number) manager().registerClient(passing);
  const auto staying = registerClient();
  EXPECT_EQ(manager().userClients().size(), 1024u);
  registerClient();
  EXPECT_EQ(manager().userClients().size(), 1024u);
  connection->invalidate();
  const auto late = registerClient();
  EXPECT_THAT(manager().userClients(), ElementsAre(staying->proxy, late->proxy));
}

// Telling.

TEST_F(UserInterfaceTest, ANoticeOfARunningServiceNamesItsProcess) {
  const auto client = registerClient();
  notify(1, 77);
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, 77)));
}

TEST_F(UserInterfaceTest, ANoticeOfAnEndedOneNamesNone) {
  const auto client = registerClient();
  notify(0, 77);
  notify(2, 77);
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 0), notice(kAgent, 2)));
  EXPECT_FALSE(client->notices[0].dictionary()->contains("PID"));
}

TEST_F(UserInterfaceTest, OfNobodyNobodyIsTold) {
  const auto client = registerClient();
  manager().notifyClientsOfService(std::nullopt, 1, 77);
  EXPECT_THAT(client->notices, IsEmpty());
}

TEST_F(UserInterfaceTest, AClientThatDoesNotConformIsRemovedAtTheFirstNotice) {
  const UserInterface stranger(protocols_, kORBServiceManagerInstallerProtocol);
  manager().registerClient(stranger.proxy);
  takeLog();
  notify(1, 77);
  EXPECT_THAT(stranger.notices, IsEmpty());
  EXPECT_THAT(manager().userClients(), IsEmpty());
  EXPECT_THAT(takeLog(), ElementsAre(kAbandoning, kAbandoned));
}

TEST_F(UserInterfaceTest, AClientWhoseCallRaisesIsRemovedAndEveryOtherIsTold) {
  std::vector<std::shared_ptr<UserInterface>> clients;
  for (int number = 0; number < 5; ++number) clients.push_back(registerClient());
  // Neighbours, the first and the last: none hides another.
  for (const int failing : {0, 1, 4}) {
    clients[failing]->exception = NSException{kNSPortTimeoutException, "hangs", {}};
  }
  takeLog();
  notify(1, 77);
  for (const auto& client : clients) EXPECT_EQ(client->notices.size(), 1u);
  EXPECT_THAT(manager().userClients(), ElementsAre(clients[2]->proxy, clients[3]->proxy));
  EXPECT_THAT(takeLog(), ElementsAre(kAbandoning, kAbandoned, kAbandoning, kAbandoned, kAbandoning,
                                     kAbandoned));
  notify(0, 0);
  EXPECT_EQ(clients[0]->notices.size(), 1u);
  EXPECT_EQ(clients[3]->notices.size(), 2u);
}

TEST_F(UserInterfaceTest, AClientThatRegisteredTwiceAndHangsIsWaitedForOnce) {
  const auto client = registerClient();
  manager().registerClient(client->proxy);
  client->exception = NSException{kNSPortTimeoutException, "hangs", {}};
  notify(1, 77);
  EXPECT_EQ(client->notices.size(), 1u);
  EXPECT_THAT(manager().userClients(), IsEmpty());
}

TEST_F(UserInterfaceTest, AClientThatAnotherOneRegistersMeanwhileHearsTheNextNotice) {
  const auto late = std::make_shared<UserInterface>(protocols_);
  const auto client = registerClient();
  client->onNotice = [&] { manager().registerClient(late->proxy); };
  notify(1, 77);
  EXPECT_THAT(late->notices, IsEmpty());
  client->onNotice = nullptr;
  notify(0, 0);
  EXPECT_EQ(late->notices.size(), 1u);
}

}  // namespace
