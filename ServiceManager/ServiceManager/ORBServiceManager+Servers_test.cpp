#include <chrono>

#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

// Messages as the protocol checkers let them through.
class MessagesTest : public ServiceManagerFixture {
 protected:
  MessagesTest() {
    use(catalogue());
    evaluate();
  }

  // Serves the loop, since an answer may come later.
  MessageResult ask(MessageTarget& server, std::string_view selector, const Array& arguments) {
    MessageResult answer = raised(kNSPortTimeoutException, "no answer yet");
    server.takeMessage(selector, arguments,
                       MessageReply([&](MessageResult result) { answer = std::move(result); }));
    loop_.runReady();
    return answer;
  }
  MessageResult receive(std::string_view selector, const Array& arguments) {
    if (selector == "retrieveKey") return ask(auth_, selector, arguments);
    const bool isOfInstaller = selector == "shutdownServices:" || selector == "evaluateServices";
    if (isOfInstaller) return ask(installer_, selector, arguments);
    return ask(userInterface_, selector, arguments);
  }
  Value send(const char* selector, Array arguments = {}) {
    const MessageResult result = receive(selector, arguments);
    EXPECT_TRUE(result) << result.error().reason;
    return result.value_or(Value());
  }
  void expectRaised(const char* selector, Value argument, const char* reason) {
    const MessageResult result = receive(selector, {std::move(argument)});
    ASSERT_FALSE(result) << selector;
    EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
    EXPECT_THAT(result.error().reason, HasSubstr(reason));
  }

  ChangeRequests changes_{loop_, 0, [](std::uint32_t) { return true; }};
  InstallerServer installer_{manager(), changes_};
  UserInterfaceServer userInterface_{manager(), changes_};
  AuthServer auth_{manager().secret()};
};

TEST_F(MessagesTest, ADelayedEndDoesNotEndALaterInstallersWork) {
  std::size_t ends = 0;
  for (std::size_t i = 0; i <= ChangeRequests::kOfUser; ++i)
    changes_.performOf(1000, [&] { ++ends; });
  EXPECT_EQ(send("shutdownServices:", {Array{}}), Value(true));
  loop_.advanceBy(ChangeRequests::kPeriod);
  EXPECT_EQ(ends, ChangeRequests::kOfUser);
}

TEST_F(MessagesTest, TheQueriesAnswerByTheirSelectors) {
  EXPECT_EQ(send("services"), manager().services());
  EXPECT_EQ(send("pidForService:", {kAgent}), Value(process(kAgent)));
  EXPECT_TRUE(send("pidForService:", {Value()}).isNil());
  EXPECT_TRUE(send("lastExitStatusForService:", {kAgent}).isNil());
  jobs_.endProcess(kAgent, {ExitStatus::Kind::kSignalled, 9});
  EXPECT_EQ(send("lastExitStatusForService:", {kAgent}), Value(9));
}

TEST_F(MessagesTest, ServicesComeInPages) {
  const Value all = manager().services();
  EXPECT_EQ(send("servicesAfter:", {""}), all);
  EXPECT_EQ(send("servicesAfter:", {(all.dictionary()->end() - 1)->first}), Value(Dictionary()));
  expectRaised("servicesAfter:", 5, "expected a label, got NSNumber");
  expectRaised("servicesAfter:", "com.example.unknown", "expected the label of a service");
}

TEST_F(MessagesTest, TooManyServicesForAMessageRaise) {
  Dictionary services = *catalogue()["Services"].dictionary();
  const Value large = Array(60'000, Value(true));
  for (const char* label : {kAgent, kHelper}) services.set(label, entry(label, {{"Large", large}}));
  use(catalogue(services));
  const MessageResult answer = receive("services", {});
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().name, kNSInvalidArgumentException);
  EXPECT_THAT(answer.error().reason, HasSubstr("don't fit into one message"));
  EXPECT_THAT(answer.error().reason, HasSubstr("\"servicesAfter:\""));
  const Value page = send("servicesAfter:", {""});
  EXPECT_TRUE(page.dictionary() && !page.dictionary()->empty());
}

TEST_F(MessagesTest, TheInstallersAnswerWaitsForTheLastService) {
  jobs_.ignoreTermination(kAgent);
  bool isAnswered = false;
  installer_.takeMessage("shutdownServices:", Array{Value(Array{kAgent, kHelper})},
                         MessageReply([&](const MessageResult& result) {
                           EXPECT_EQ(result.value_or(Value()), Value(true));
                           isAnswered = true;
                         }));
  loop_.runReady();
  EXPECT_FALSE(isRunning(kHelper));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_FALSE(isAnswered);
  EXPECT_EQ(send("pidForService:", {kAgent}), Value(process(kAgent)));  // Others are answered.
  loop_.advanceBy(20s);
  EXPECT_TRUE(isAnswered);
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(MessagesTest, TheRequestsDoWhatTheirSelectorsSay) {
  EXPECT_TRUE(send("stopServices:", {Array{kAgent}}).isNil());
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_TRUE(send("startServices:", {Array{kAgent}}).isNil());
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(send("shutdownServices:", {Array{kHelper}}), Value(true));
  EXPECT_FALSE(isRunning(kHelper));
  EXPECT_EQ(send("evaluateServices"), Value(true));
  const UserInterface client(protocols_);
  EXPECT_TRUE(
      send("registerClient:", {Value(std::shared_ptr<const RemoteObject>(client.proxy))}).isNil());
  EXPECT_THAT(manager().userClients(), ElementsAre(client.proxy));
  EXPECT_TRUE(send("registerClient:", {Value()}).isNil());
  EXPECT_EQ(manager().userClients().size(), 1u);
}

TEST_F(MessagesTest, AnArgumentOfTheWrongKindRaises) {
  for (const char* selector : {"pidForService:", "lastExitStatusForService:"}) {
    expectRaised(selector, 5, "expected a label, got NSNumber");
    expectRaised(selector, Array{kAgent}, "expected a label, got NSArray");
  }
  for (const char* selector : {"stopServices:", "startServices:", "shutdownServices:"}) {
    expectRaised(selector, kAgent, "expected an array of labels, got NSString");
    expectRaised(selector, Value(), "expected an array of labels, got nil");
  }
  expectRaised("registerClient:", kAgent, "expected a proxy, got NSString");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
}

TEST_F(MessagesTest, EachServerRaisesForTheSelectorsOfTheOthers) {
  const auto raises = [this](MessageTarget& server, const char* selector) {
    const MessageResult result = ask(server, selector, {Array{kAgent}});
    return !result && result.error().name == kNSInvalidArgumentException;
  };
  for (const char* selector : {"release", "retrieveKey", "stopServices:", "services"}) {
    EXPECT_TRUE(raises(installer_, selector)) << selector;
  }
  for (const char* selector : {"release", "retrieveKey", "shutdownServices:", "evaluateServices"}) {
    EXPECT_TRUE(raises(userInterface_, selector)) << selector;
  }
  for (const char* selector : {"release", "services", "stopServices:", "shutdownServices:"}) {
    EXPECT_TRUE(raises(auth_, selector)) << selector;
  }
  EXPECT_TRUE(isRunning(kAgent));
}

// The servers, as other programs reach them.

class ServersTest : public StartUpFixture {
 protected:
  static constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
  static constexpr char kUserInterfaceServer[] = "com.vantor.servicemanager.userinterface.server";
  static constexpr char kAuthServer[] = "com.vantor.common.servicemanager.auth";

  ServersTest() {
    startConfigurationServer();
    start();
    loop_.advanceBy(1s);
  }

  // A client in another program.
  std::unique_ptr<VantorDistantObject> client(const char* server, const char* protocol) {
    return std::make_unique<VantorDistantObject>(
        VantorDistantObject::Environment{loop_, user_.connections, *otherCenter_, user_.center,
                                         protocols_, system_},
        server, protocol, std::nullopt);
  }

  // The notices that the user interface's object gets.
  class Listener final : public MessageReceiver {
   public:
    MessageResult receiveMessage(std::string_view, const Array& arguments) override {
      notices.push_back(arguments.at(0));
      if (onNotice) onNotice();
      return Value();
    }
    std::vector<Value> notices;
    std::function<void()> onNotice;
  };

  // The user interface's connection, over which its listener has been registered.
  std::unique_ptr<VantorDistantObject> registerListener() {
    auto ui = client(kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol);
    ui->sendMessage("registerClient:", {Value(std::shared_ptr<const RemoteObject>(proxy_))});
    loop_.runReady();
    EXPECT_EQ(manager().userClients().size(), 1u);
    return ui;
  }

  Program user_{*this, 300};
  Listener listener_;
  std::shared_ptr<NSProtocolChecker> proxy_ = std::make_shared<NSProtocolChecker>(
      &listener_, protocols_.find(kORBServiceManagerUserInterfaceDelegateProtocol));
};

TEST_F(ServersTest, TheUserInterfacesServerAnswersAnAuthenticatedPeer) {
  const auto ui = client(kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol);
  EXPECT_EQ(ui->sendMessage("services"), manager().services());
  // A question about a service is answered in a later turn; see MessagesTest.
  EXPECT_EQ(ui->sendMessage("pidForService:", {Value()}), Value());
  ui->sendMessage("stopServices:", {Array{kAgent}});
  loop_.runReady();
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_FALSE(ui->recentException());
}

TEST_F(ServersTest, TheInstallersServerBeginsAndEnds) {
  const auto installer = client(kInstallerServer, kORBServiceManagerInstallerProtocol);
  ASSERT_TRUE(jobs_.SMJobRemove(kSMDomainSystemLaunchd, kAgent, nullptr, true));
  // Without a service; the answer about one comes later.
  EXPECT_EQ(installer->sendMessage("shutdownServices:", {Array{}}), Value(true));
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(installer->sendMessage("evaluateServices"), Value(true));
  loop_.advanceBy(200ms);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ServersTest, TheSecretIsHandedOutWhole) {
  const auto auth = client(kAuthServer, kServiceManagerAuthProtocol);
  const MessageResult key = auth->sendMessage("retrieveKey");
  ASSERT_TRUE(key && key->data());
  EXPECT_EQ(key->data()->size(), 8u);
  EXPECT_EQ(*key, manager().secret());
}

TEST_F(ServersTest, EachServerAdmitsItsOwnProtocolOnly) {
  const auto raised = [&](const char* server, const char* protocol, const char* selector,
                          Array arguments) {
    const auto stranger = client(server, protocol);
    stranger->sendMessage(selector, std::move(arguments));
    return stranger->recentException() ? stranger->recentException()->name : "";
  };
  EXPECT_EQ(raised(kUserInterfaceServer, kServiceManagerAuthProtocol, "retrieveKey", {}),
            kNSInvalidArgumentException);
  EXPECT_EQ(raised(kAuthServer, kORBServiceManagerUserInterfaceProtocol, "services", {}),
            kNSInvalidArgumentException);
  EXPECT_EQ(raised(kUserInterfaceServer, kORBServiceManagerInstallerProtocol,
                   "shutdownServices:", {Array{kAgent}}),
            kNSInvalidArgumentException);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ServersTest, TheDaemonItselfAuthenticatesForTwoOfThem) {
  EXPECT_EQ(manager().installerConnection()->delegate(), &manager());
  EXPECT_EQ(manager().userInterfaceConnection()->delegate(), &manager());
  EXPECT_EQ(manager().deamonConnection()->delegate(), manager().connectionAuthenticator());
}

TEST_F(ServersTest, APeerOfAnotherBootIsRefusedByEach) {
  FakeSystemInformation otherBoot;
  otherBoot.setBootTime(FakeSystemInformation::kBootTime + 1);
  for (const auto& [server, protocol, selector] :
       {std::tuple(kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol, "services"),
        std::tuple(kInstallerServer, kORBServiceManagerInstallerProtocol, "evaluateServices"),
        std::tuple(kAuthServer, kServiceManagerAuthProtocol, "retrieveKey")}) {
    VantorDistantObject stranger(
        {loop_, user_.connections, *otherCenter_, user_.center, protocols_, otherBoot}, server,
        protocol, std::nullopt);
    const MessageResult answer = stranger.sendMessage(selector);
    EXPECT_TRUE(answer && answer->isNil()) << server;
    EXPECT_TRUE(stranger.recentException()) << server;
  }
}

TEST_F(ServersTest, ARegisteredClientIsNotifiedOfAnExit) {
  const auto ui = registerListener();
  kill(kAgent);
  EXPECT_THAT(listener_.notices,
              ElementsAre(notice(kAgent, 0), notice(kAgent, 1, process(kAgent))));
  EXPECT_EQ(manager().userClients().size(), 1u);
}

TEST_F(ServersTest, ADeadClientIsDroppedAtTheNextNotice) {
  const auto ui = registerListener();
  const auto other = registerClient();
  user_.transport.die();
  kill(kAgent);
  EXPECT_THAT(manager().userClients(), ElementsAre(other->proxy));
  EXPECT_EQ(other->notices.size(), 2u);
}

TEST_F(ServersTest, AHungClientDelaysNobody) {
  const auto ui = registerListener();
  const auto other = registerClient();
  user_.transport.hang();
  const Instant before = loop_.now();
  kill(kAgent);
  EXPECT_EQ(loop_.now(), before);
  EXPECT_EQ(other->notices.size(), 2u);
  EXPECT_EQ(manager().userClients().size(), 2u);
  loop_.advanceBy(NSConnection::kCallbackTimeout);
  EXPECT_THAT(manager().userClients(), ElementsAre(other->proxy));
}

TEST_F(ServersTest, ACallWithinANoticeIsAnswered) {
  const auto ui = registerListener();
  std::vector<Value> answers;
  listener_.onNotice = [&] { answers.push_back(ui->sendMessage("services").value_or(Value())); };
  const Instant before = loop_.now();
  kill(kAgent);
  EXPECT_EQ(loop_.now(), before);
  EXPECT_THAT(answers, ElementsAre(manager().services(), manager().services()));
  EXPECT_EQ(manager().userClients().size(), 1u);
  // Another program sends a request while the daemon is busy.
  Program other(*this, 301);
  VantorDistantObject asking(
      {loop_, other.connections, *otherCenter_, other.center, protocols_, system_},
      kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol, std::nullopt);
  EXPECT_EQ(asking.sendMessage("services"), manager().services());
}

TEST_F(ServersTest, AHungConfigurationServerCostsABoundedTime) {
  manager_.reset();
  configurationProgram_->transport.hang();
  const Instant before = loop_.now();
  start();
  EXPECT_LE(loop_.now() - before, 15s);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  EXPECT_TRUE(manager().userInterfaceConnection()->isValid());
}

TEST_F(ServersTest, ANameInUseAffectsNoOtherServer) {
  manager_.reset();
  user_.vend(kInstallerServer, listener_, kORBServiceManagerInstallerProtocol);
  start();
  const auto auth = client(kAuthServer, kServiceManagerAuthProtocol);
  EXPECT_EQ(auth->sendMessage("retrieveKey"), manager().secret());
  EXPECT_EQ(announcements_.size(), 2u);
}

}  // namespace
