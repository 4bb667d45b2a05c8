#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"

#include <thread>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObjectFixture_contract.h"
#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"

namespace {

using namespace std::chrono_literals;
using platform::Array;
using platform::MessageResult;
using platform::MethodDescription;
using platform::NSConnection;
using platform::Value;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(VantorDistantObjectTest, AMessageIsForwardedToTheServer) {
  startServer();
  const auto object = make();
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
  EXPECT_EQ(object->sendMessage("echo:", {Value("text")}), MessageResult(Value("text")));
  EXPECT_EQ(recentName(*object), "none");
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_F(VantorDistantObjectTest, AOneWayMessageIsNotWaitedFor) {
  startServer();
  const auto object = make();
  ASSERT_TRUE(object->isProxyValid());
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { EXPECT_TRUE(object->sendMessage("set:", {Value(1)})); }), 0s);
  EXPECT_EQ(recentName(*object), "none");
  serverTransport_.goOn();
  loop_.runReady();
  EXPECT_THAT(server_.messages, ElementsAre("set:"));
}

TEST_F(VantorDistantObjectTest, ItConnectsOnlyWhenItMust) {
  startServer();
  const auto object = make();
  EXPECT_EQ(object->connection(), nullptr);
  EXPECT_TRUE(object->shouldPersistConnection());
  EXPECT_FALSE(object->retryAfterException());
  EXPECT_TRUE(object->isProxyValid());
  const auto connection = object->connection();
  const auto proxy = object->rootProxy();
  EXPECT_TRUE(object->sendMessage("isServerUp"));
  EXPECT_EQ(object->connection(), connection);
  EXPECT_EQ(object->rootProxy(), proxy);
  EXPECT_EQ(vended_->childConnections().size(), 1u);
}

TEST_F(VantorDistantObjectTest, ANewConnectionGetsTheTimeOutsTheDelegateAndTheProtocol) {
  startServer();
  const auto object = make();
  ASSERT_TRUE(object->isProxyValid());
  EXPECT_EQ(object->connection()->replyTimeout(), 10s);
  EXPECT_EQ(object->connection()->requestTimeout(), 10s);
  EXPECT_EQ(object->connection()->delegate(), object.get());
  EXPECT_TRUE(object->rootProxy()->conformsToProtocol(kProtocolName));
}

// Notes the starts of its server.
struct NotingStarts final : VantorDistantObject {
  using VantorDistantObject::VantorDistantObject;
  void serverDidStart(const platform::DistributedNotification& notification) override {
    VantorDistantObject::serverDidStart(notification);
    started.push_back(notification.name);
  }
  std::vector<std::string> started;
};

TEST_F(VantorDistantObjectTest, WithoutAProtocolOrNameEveryMessageFails) {
  startServer();
  std::vector<std::unique_ptr<NotingStarts>> objects;
  objects.push_back(std::make_unique<NotingStarts>(environment(), kName, "NoProtocol", kStarted));
  objects.push_back(std::make_unique<NotingStarts>(environment(), kName, std::nullopt, kStarted));
  objects.push_back(
      std::make_unique<NotingStarts>(environment(), std::nullopt, kProtocolName, kStarted));
  objects.push_back(std::make_unique<NotingStarts>(environment()));
  for (const auto& object : objects) {
    EXPECT_EQ(object->remoteServerName(), std::nullopt);
    EXPECT_EQ(object->protocolName(), std::nullopt);
    EXPECT_EQ(object->serverDidStartNotificationName(), std::nullopt);
    EXPECT_FALSE(object->isProxyValid());
    sink_.clear();
    EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value()));
    EXPECT_EQ(recentName(*object), kNilProxy);
    EXPECT_THAT(errors(), ElementsAre(errorLine(kNilProxy, 1)));
    EXPECT_THAT(debugLines(), ElementsAre(kNoConnection));
    EXPECT_FALSE(object->conformsToProtocol(kProtocolName));
    EXPECT_FALSE(object->respondsToSelector("isServerUp"));
  }
  announceStart();
  for (const auto& object : objects) EXPECT_THAT(object->started, IsEmpty());
}

TEST_F(VantorDistantObjectTest, WithoutRetriesAMissingServerIsLoggedOnce) {
  const auto object = make();
  EXPECT_EQ(timeOf([&] { object->sendMessage("isServerUp"); }), 0s);
  EXPECT_THAT(errors(), ElementsAre(errorLine(kNilProxy, 1)));
  EXPECT_THAT(debugLines(), ElementsAre(kNoConnection));
  ASSERT_TRUE(object->recentException());
  EXPECT_EQ(*object->recentException(), (platform::NSException{kNilProxy, "", {}}));
}

TEST_F(VantorDistantObjectTest, WithRetriesAMissingServerIsLoggedFiveTimes) {
  const auto object = makeRetrying();
  EXPECT_TRUE(object->retryAfterException());
  EXPECT_EQ(timeOf([&] { object->sendMessage("isServerUp"); }), 2s);
  EXPECT_THAT(errors(),
              ElementsAre(errorLine(kNilProxy, 1), errorLine(kNilProxy, 2), errorLine(kNilProxy, 3),
                          errorLine(kNilProxy, 4), errorLine(kNilProxy, 5)));
  EXPECT_EQ(debugLines().size(), 5u);
  EXPECT_EQ(recentName(*object), kNilProxy);
}

TEST_F(VantorDistantObjectTest, ARetryReachesAServerThatHasStartedMeanwhile) {
  const auto object = makeRetrying();
  loop_.scheduleOutsideEvent(700ms, [this] { startServer(); });
  EXPECT_EQ(
      timeOf([&] { EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true))); }),
      1s);
  EXPECT_EQ(errors().size(), 2u);
  EXPECT_EQ(recentName(*object), "none");
}

TEST_F(VantorDistantObjectTest, AServersExceptionIsKeptAndNeverRaised) {
  startServer();
  const auto object = make();
  ASSERT_TRUE(object->isProxyValid());
  const auto connection = object->connection();
  EXPECT_EQ(object->sendMessage("fail"), MessageResult(Value()));
  EXPECT_EQ(*object->recentException(), (platform::NSException{"ServerException", "because", {}}));
  EXPECT_THAT(errors(), ElementsAre(errorLine("ServerException", 1)));
  // The proxy is dropped now, the connection only when the next message replaces it.
  EXPECT_EQ(object->connection(), connection);
  EXPECT_TRUE(connection->isValid());
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
  EXPECT_FALSE(connection->isValid());
  EXPECT_NE(object->connection(), connection);
  EXPECT_EQ(recentName(*object), "none");
}

TEST_F(VantorDistantObjectTest, AServersExceptionIsRetriedToo) {
  startServer();
  const auto object = makeRetrying();
  EXPECT_EQ(object->sendMessage("fail"), MessageResult(Value()));
  EXPECT_EQ(server_.messages, std::vector<std::string>(5, "fail"));
  EXPECT_EQ(errors().back(), errorLine("ServerException", 5));
  EXPECT_EQ(recentName(*object), "ServerException");
}

TEST_F(VantorDistantObjectTest, AnExceptionWhileLookingUpDropsTheConnection) {
  startServer();
  const auto object = make();
  platform::FakeSystemInformation otherBoot;
  otherBoot.setBootTime(1);
  KLXConnectionAuthenticator other(otherBoot);
  vended_->setDelegate(&other);
  EXPECT_EQ(object->rootProxy(), nullptr);
  EXPECT_EQ(object->connection(), nullptr);
  EXPECT_THAT(debugLines(), ElementsAre(kNoConnection));
  EXPECT_THAT(errors(), IsEmpty());
  object->sendMessage("isServerUp");
  EXPECT_EQ(recentName(*object), kNilProxy);
  EXPECT_THAT(server_.messages, IsEmpty());
}

TEST_F(VantorDistantObjectTest, AServerThatDoesNotAnswerIsATimeOut) {
  startServer();
  const auto object = make();
  ASSERT_TRUE(object->isProxyValid());
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { object->sendMessage("isServerUp"); }), 10s);
  EXPECT_EQ(recentName(*object), "NSPortTimeoutException");
  EXPECT_THAT(errors(), ElementsAre(errorLine("NSPortTimeoutException", 1)));
}

TEST_F(VantorDistantObjectTest, AHungServerCostsOneTimeOutNotOnePerMessage) {
  startServer();
  const auto object = make();
  const auto another = make();
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { object->sendMessage("isServerUp"); }), 5s);
  EXPECT_EQ(timeOf([&] {
              for (int message = 0; message < 10; ++message) another->sendMessage("isServerUp");
            }),
            0s);
  EXPECT_EQ(recentName(*another), kNilProxy);
  serverTransport_.goOn();
  announceStart();
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
}

TEST_F(VantorDistantObjectTest, TheRetryInitialiserRaisesTheTimeOutOfLaterConnections) {
  startServer();
  const auto before = make();
  ASSERT_TRUE(before->isProxyValid());
  const auto later = make();
  // The flag does not matter, nor whether the object is set up.
  VantorDistantObject(environment(), std::nullopt, std::nullopt, std::nullopt, false);
  EXPECT_EQ(VantorDistantObject::gTimeoutInterval, 300.0);
  ASSERT_TRUE(later->isProxyValid());
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { before->sendMessage("isServerUp"); }), 10s);
  EXPECT_EQ(timeOf([&] { later->sendMessage("isServerUp"); }), 300s);
}

TEST_F(VantorDistantObjectTest, AnUnknownSelectorFailsInTheBaseClass) {
  startServer();
  const auto object = make();
  object->setRecentException(platform::NSException{"Old", "", {}});
  const MessageResult result = object->sendMessage("hidden");
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().name, platform::kNSInvalidArgumentException);
  EXPECT_EQ(result.error().reason, "-[VantorDistantObject hidden]: unrecognized selector");
  EXPECT_EQ(recentName(*object), "none");
  EXPECT_EQ(object->connection(), nullptr);
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_F(VantorDistantObjectTest, WithoutPersistenceEachMessageHasItsOwnConnection) {
  startServer();
  const auto object = make();
  object->setPersistConnection(false);
  std::vector<const void*> died;
  const auto observation = program_.center.addObserver(
      platform::kNSConnectionDidDieNotification, nullptr,
      [&](const platform::Notification& notification) { died.push_back(notification.object); });
  for (std::size_t message = 1; message <= 3; ++message) {
    EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
    EXPECT_EQ(object->connection(), nullptr);
    EXPECT_EQ(died.size(), message);
  }
  loop_.runReady();
  EXPECT_THAT(vended_->childConnections(), IsEmpty());
  // The same after a failure, and after an unknown selector.
  EXPECT_TRUE(object->isProxyValid());
  EXPECT_FALSE(object->sendMessage("hidden"));
  EXPECT_EQ(object->connection(), nullptr);
  object->sendMessage("fail");
  EXPECT_EQ(object->connection(), nullptr);
}

TEST_F(VantorDistantObjectTest, AfterTheServersDeathTheNextMessageReconnects) {
  startServer();
  const auto object = make();
  ASSERT_TRUE(object->isProxyValid());
  stopServer();
  EXPECT_EQ(object->connection(), nullptr);
  startServer();
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(VantorDistantObjectTest, TheDeathOfAnotherConnectionChangesNothing) {
  startServer();
  const auto object = make();
  const auto another = make();
  ASSERT_TRUE(object->isProxyValid());
  ASSERT_TRUE(another->isProxyValid());
  const auto connection = object->connection();
  another->connection()->invalidate();
  EXPECT_EQ(another->connection(), nullptr);
  EXPECT_EQ(object->connection(), connection);
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
  EXPECT_EQ(object->connection(), connection);
}

TEST_F(VantorDistantObjectTest, AfterTheStartNotificationTheServerIsLookedUpAgain) {
  startServer();
  const auto object = make();
  ASSERT_TRUE(object->isProxyValid());
  const auto connection = object->connection();
  announceStart();
  EXPECT_EQ(object->connection(), nullptr);
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
  EXPECT_NE(object->connection(), connection);
  // This test keeps it, but the object does not use it any more.
  EXPECT_EQ(connection->delegate(), nullptr);
}

TEST_F(VantorDistantObjectTest, WithoutANotificationNameStartsAreNotObserved) {
  startServer();
  VantorDistantObject object(environment(), kName, kProtocolName, std::nullopt);
  ASSERT_TRUE(object.isProxyValid());
  const auto connection = object.connection();
  announceStart();
  EXPECT_EQ(object.connection(), connection);
}

TEST_F(VantorDistantObjectTest, ASubclassCanExtendServerDidStart) {
  startServer();
  NotingStarts object(environment(), kName, kProtocolName, kStarted);
  ASSERT_TRUE(object.isProxyValid());
  announceStart();
  EXPECT_THAT(object.started, ElementsAre(kStarted));
  EXPECT_EQ(object.connection(), nullptr);
}

TEST_F(VantorDistantObjectTest, ItConformsToTheRemoteProtocolWithoutAdoptingIt) {
  const auto object = make();
  EXPECT_TRUE(object->conformsToProtocol(kProtocolName));
  EXPECT_TRUE(object->conformsToProtocol("NSConnectionDelegate"));
  EXPECT_TRUE(object->conformsToProtocol("NSObject"));
  EXPECT_FALSE(object->conformsToProtocol("OtherProtocol"));
}

TEST_F(VantorDistantObjectTest, SelectorsAreKnownWithoutTheServer) {
  const auto object = make();
  for (const char* selector : {"isServerUp", "echo:", "set:", "rootProxy", "poser"})
    EXPECT_TRUE(object->respondsToSelector(selector)) << selector;
  EXPECT_FALSE(object->respondsToSelector("hidden"));
  EXPECT_EQ(object->methodSignatureForSelector("set:")->kind, MethodDescription::Kind::kOneWay);
  EXPECT_EQ(object->methodSignatureForSelector("echo:")->argumentCount(), 1u);
  EXPECT_EQ(object->methodSignatureForSelector("hidden"), nullptr);
  EXPECT_TRUE(object->poser().respondsToSelector("isServerUp"));
  EXPECT_FALSE(object->poser().respondsToSelector("rootProxy"));
  EXPECT_FALSE(object->poser().sendMessage("isServerUp", {}));
  EXPECT_EQ(object->connection(), nullptr);
}

TEST_F(VantorDistantObjectTest, AsADelegateItAcceptsNoPeerAndShowsTheClientsToken) {
  const auto object = make();
  const auto parent = program_.connections.makeConnection();
  const auto child = program_.connections.makeConnection();
  EXPECT_FALSE(object->connection(*parent, *child));
  EXPECT_EQ(object->authenticationDataForComponents({Value(1)}), systemProfileData(system_));
  EXPECT_TRUE(object->authenticateComponents({Value(1)}, clientProfileData(system_)));
  EXPECT_FALSE(object->authenticateComponents({}, systemProfileData(system_)));
}

TEST_F(VantorDistantObjectTest, ItKeepsItsArguments) {
  const auto object = make();
  EXPECT_EQ(object->remoteServerName(), kName);
  EXPECT_EQ(object->protocolName(), kProtocolName);
  EXPECT_EQ(object->serverDidStartNotificationName(), kStarted);
}

TEST_F(VantorDistantObjectTest, AfterItsEndItObservesNothingAndIsNoDelegate) {
  startServer();
  CountingCenter counting(*distributed_);
  auto object = std::make_unique<VantorDistantObject>(
      VantorDistantObject::Environment{loop_, program_.connections, counting, program_.center,
                                       protocols_, system_},
      kName, kProtocolName, kStarted);
  ASSERT_TRUE(object->isProxyValid());
  EXPECT_EQ(counting.count, 1);
  const auto connection = object->connection();
  object.reset();
  EXPECT_EQ(counting.count, 0);
  EXPECT_EQ(connection->delegate(), nullptr);
  announceStart();
  connection->invalidate();
}

TEST_F(VantorDistantObjectTest, ItLogsUnderItsOwnNameForAsLongAsItLives) {
  std::jthread([this] {  // a thread that has not logged yet
    {
      const auto object = make();
      const auto another = make();
      object->rootProxy();
    }
    EXPECT_EQ(sink_.messages().front().ident, "Vantor Distant Object");
    EXPECT_EQ(sink_.messages().front().facility, "com.vantor.hostagent.libVantorDistantObject");
    // All is closed: the thread has no client any more.
    EXPECT_EQ(vantorlogger_getclient()->ident, "<no asl_client>");
  })
      .join();
}

}  // namespace
