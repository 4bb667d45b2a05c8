#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"

#include <string>
#include <vector>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogSink.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/EndpointRegistry_fixture.h"

namespace {

using namespace platform;

TEST_F(EndpointRegistryTest, ItsLinesHaveItsOwnNameUntilItEnds) {
  handler().validatePasskey(Value());
  queues_.runPending();
  EXPECT_EQ(logSink_.messagesOf("ORBServiceManagerXPCHandler").size(), 1u);
  handler_.reset();
  // While one logger has a thread's queue open, other names are ignored there.
  vantorlogger2_open("Next", mach_thread_self());
  vantorlogger2_line(ASL_LEVEL_DEBUG, "of the next");
  vantorlogger2_close(mach_thread_self());
  queues_.runPending();
  EXPECT_EQ(logSink_.messagesOf("ORBServiceManagerXPCHandler").size(), 1u);
  EXPECT_EQ(logSink_.messagesOf("Next").size(), 1u);
}

TEST_F(EndpointRegistryTest, TheSignatureIsTheServersToken) {
  Data shown;
  handler().signature([&](const Data& signature) { shown = signature; });
  EXPECT_EQ(shown, clientProfileData(system_));
}

TEST_F(EndpointRegistryTest, ARegisteredEndpointIsFound) {
  EXPECT_EQ(registerAs(one_, passkey(), "name"), "YES nil");
  EXPECT_EQ(lookUp(passkey(), "name"), Lookup(one_));
  EXPECT_EQ(lines(), (std::vector<std::string>{"7 Received register request for 'name'.",
                                               "7 Received listenerendpoint request for 'name'"}));
  EXPECT_TRUE(requests_.empty());
}

TEST_F(EndpointRegistryTest, ARegistrationReplacesAnEarlierOne) {
  registerAs(one_, passkey(), "name");
  EXPECT_EQ(registerAs(other_, passkey(), "name"), "YES nil");
  EXPECT_EQ(lookUp(passkey(), "name"), Lookup(other_));
}

TEST_F(EndpointRegistryTest, ANameWhoseOwnerHasDiedIsNilAndRequested) {
  registerAs(one_, passkey(), "name");
  one_->lives = false;
  EXPECT_EQ(lookUp(passkey(), "name"), Lookup(nullptr));
  EXPECT_EQ(requests_.size(), 1u);
  EXPECT_EQ(handler().xpcListenerEndpointByName("name"), nullptr);
  EXPECT_EQ(registerAs(other_, passkey(), "name"), "YES nil");
  EXPECT_EQ(lookUp(passkey(), "name"), Lookup(other_));
}

TEST_F(EndpointRegistryTest, DeadNamesMakeRoomForOthers) {
  registerAs(other_, passkey(), "first");
  for (std::size_t i = 1; i < ORBServiceManagerXPCHandler::kMaxNames; ++i) {
    ASSERT_EQ(registerAs(one_, passkey(), std::to_string(i)), "YES nil");
  }
  EXPECT_EQ(registerAs(other_, passkey(), "one more"), "NO Too many names are registered.");
  one_->lives = false;
  EXPECT_EQ(registerAs(other_, passkey(), "one more"), "NO Too many names are registered.");
  loop_.advanceBy(ORBServiceManagerXPCHandler::kSearchInterval);
  EXPECT_EQ(registerAs(other_, passkey(), "one more"), "YES nil");
  EXPECT_EQ(lookUp(passkey(), "first"), Lookup(other_));
  EXPECT_EQ(one_.use_count(), 1);
}

TEST_F(EndpointRegistryTest, AnUnknownNameIsNilAndRequestedOnce) {
  EXPECT_EQ(lookUp(passkey(), "missing"), Lookup(nullptr));
  ASSERT_EQ(requests_.size(), 1u);
  EXPECT_EQ(requests_[0],
            (DistributedNotification{"com.vantor.servicemanager.xpc.notification.registration",
                                     std::nullopt, Dictionary{{"requestName", "missing"}}}));
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         "7 Received listenerendpoint request for 'missing'",
                         "7 Cannot find listener for endpoint 'missing'.",
                         "7 Send a registration request notification for 'missing'."}));
}

TEST_F(EndpointRegistryTest, LookupsOfOneNameAreOneRequestUntilItIsPosted) {
  const auto ignored = [](const ORBServiceManagerXPCHandler::Endpoint&) {};
  for (int i = 0; i < 1000; ++i) handler().xpcListenerEndpoint(passkey(), "missing", ignored);
  EXPECT_EQ(lookUp(passkey(), "another"), Lookup(nullptr));
  ASSERT_EQ(requests_.size(), 2u);
  EXPECT_EQ(requests_[0].userInfo, Value(Dictionary{{"requestName", "missing"}}));
  EXPECT_EQ(requests_[1].userInfo, Value(Dictionary{{"requestName", "another"}}));
  EXPECT_EQ(lookUp(passkey(), "missing"), Lookup(nullptr));
  EXPECT_EQ(requests_.size(), 3u);
}

TEST_F(EndpointRegistryTest, TheNamesThatWaitToBeRequestedAreLimited) {
  const auto ignored = [](const ORBServiceManagerXPCHandler::Endpoint&) {};
  constexpr std::size_t kNames = ORBServiceManagerXPCHandler::kMaxWantedNames;
  for (std::size_t i = 0; i < kNames + 1000; ++i) {
    handler().xpcListenerEndpoint(passkey(), "missing" + std::to_string(i), ignored);
  }
  static_cast<void>(lines());
  loop_.runReady();
  EXPECT_EQ(requests_.size(), kNames);
  EXPECT_EQ(lines(),
            (std::vector<std::string>{
                "4 1000 registration requests were left out, because 256 others waited."}));
  lookUp(passkey(), "missing");
  EXPECT_EQ(requests_.size(), kNames + 1);
}

class WrongPasskey : public EndpointRegistryTest, public testing::WithParamInterface<int> {
 protected:
  // The index of the byte that differs or, from 16 on, the length.
  Value wrong() const {
    Data key = *passkey().data();
    if (GetParam() < 16) {
      key[static_cast<std::size_t>(GetParam())] ^= 1;
      return key;
    }
    key.resize(static_cast<std::size_t>(GetParam() - 16));
    return key;
  }
};

TEST_P(WrongPasskey, RegistersNothingAndIsAnswered) {
  ASSERT_NE(wrong(), passkey());
  EXPECT_EQ(registerAs(one_, wrong(), "name"), "NO Invalid passkey for the registration.");
  EXPECT_EQ(lines(), (std::vector<std::string>{"3 Invalid profile detected.",
                                               "3 Received invalid passkey for registration."}));
  EXPECT_EQ(handler().xpcListenerEndpointByName("name"), nullptr);
}

TEST_P(WrongPasskey, FindsNothingAndIsNotAnswered) {
  ASSERT_NE(wrong(), passkey());
  registerAs(one_, passkey(), "name");
  lines();
  EXPECT_EQ(lookUp(wrong(), "name"), std::nullopt);
  EXPECT_EQ(lookUp(wrong(), "missing"), std::nullopt);
  const std::vector<std::string> refusal{
      "3 Invalid profile detected.", "3 Received invalid passkey for listener endpoint request."};
  auto twice = refusal;
  twice.insert(twice.end(), refusal.begin(), refusal.end());
  EXPECT_EQ(lines(), twice);
  EXPECT_TRUE(requests_.empty());
}

INSTANTIATE_TEST_SUITE_P(BytesAndLengths, WrongPasskey,
                         testing::Values(0, 7, 15, 16, 17, 31, 33, 16 + 4096));

TEST_F(EndpointRegistryTest, APasskeyThatIsNoDataIsWrong) {
  EXPECT_FALSE(handler().validatePasskey(Value()));
  EXPECT_FALSE(handler().validatePasskey(Value("text")));
  EXPECT_TRUE(handler().validatePasskey(passkey()));
}

TEST_F(EndpointRegistryTest, RegistrationsBeyondTheLimitsAreRefused) {
  EXPECT_EQ(registerAs(nullptr, passkey(), "name"), "NO There is no endpoint to register.");
  const std::string longest(ORBServiceManagerXPCHandler::kMaxNameBytes, 'n');
  EXPECT_EQ(registerAs(one_, passkey(), longest), "YES nil");
  EXPECT_EQ(registerAs(one_, passkey(), longest + "n"), "NO The name is too long.");
  for (std::size_t i = 1; i < ORBServiceManagerXPCHandler::kMaxNames; ++i) {
    ASSERT_EQ(registerAs(one_, passkey(), std::to_string(i)), "YES nil");
  }
  EXPECT_EQ(registerAs(one_, passkey(), "one more"), "NO Too many names are registered.");
  EXPECT_EQ(registerAs(other_, passkey(), longest), "YES nil");
}

TEST_F(EndpointRegistryTest, ANameThatCantBeRegisteredIsNotRequested) {
  EXPECT_EQ(registerAs(one_, passkey(), std::nullopt), "NO There is no name to register it under.");
  EXPECT_EQ(registerAs(one_, passkey(), ""), "YES nil");
  const std::string longest(ORBServiceManagerXPCHandler::kMaxNameBytes, 'n');
  lines();
  EXPECT_EQ(lookUp(passkey(), std::nullopt), Lookup(nullptr));
  EXPECT_EQ(lookUp(passkey(), longest + "n"), Lookup(nullptr));
  EXPECT_EQ(lines(), (std::vector<std::string>{
                         "7 Received listenerendpoint request for '(null)'",
                         "7 Cannot find listener for endpoint '(null)'.",
                         "7 Received listenerendpoint request for '" + longest + "...'",
                         "7 Cannot find listener for endpoint '" + longest + "...'."}));
  EXPECT_TRUE(requests_.empty());
  EXPECT_EQ(lookUp(passkey(), longest), Lookup(nullptr));
  EXPECT_EQ(requests_.size(), 1u);
}

TEST_F(EndpointRegistryTest, TheDaemonItselfNeedsNoPasskey) {
  EXPECT_EQ(handler().xpcListenerEndpointByName("name"), nullptr);
  handler().registerXPCListenerEndpoint(one_, "name");
  EXPECT_EQ(handler().xpcListenerEndpointByName("name"), one_);
  EXPECT_TRUE(lines().empty());
}

TEST_F(XPCStartUpTest, TheExecutableInformationServiceIsFoundThroughTheRegistry) {
  start();
  const auto registry = connect(client_.xpc.makeConnection("com.vantor.common.servicemanager"),
                                "ORBServiceManagerXPCInterfaceProtocol");
  EXPECT_EQ(call(*registry, "signatureWithReply:", {}), Array{Value(clientProfileData(system_))});
  const auto found = call(*registry, "xpcListenerEndpointForPasskey:withName:withReply:",
                          {passkey(), Value("com.vantor.xpc.name.execinfohandler")});
  ASSERT_TRUE(found);
  const auto service =
      connect(client_.xpc.makeConnection(endpointIn(found->at(0))), "ORBExecutableInfoProtocol");
  EXPECT_EQ(call(*service, "requestExecutableInfo:withReply:", {Value("/nowhere")}),
            (Array{Value(""), Value(""), Value("")}));
  EXPECT_EQ(countInLog("Received a new connection request. pid: 300, uid: 501"), 2u);
  EXPECT_EQ(countInLog("requestExecutableInfo request for path '/nowhere'"), 1u);
}

TEST_F(XPCStartUpTest, RequestsOverAConnectionAreAnsweredAsLocally) {
  start();
  const auto registry = connect(client_.xpc.makeConnection("com.vantor.common.servicemanager"),
                                "ORBServiceManagerXPCInterfaceProtocol");
  const auto own = client_.xpc.makeAnonymousListener();
  const Value endpoint(std::shared_ptr<const RemoteObject>(own->endpoint()));
  EXPECT_EQ(call(*registry, "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
                 {endpoint, passkey(), Value("mine")}),
            (Array{Value(true), Value()}));
  EXPECT_EQ(call(*registry,
                 "xpcListenerEndpointForPasskey:withName:withReply:", {passkey(), Value("mine")}),
            Array{endpoint});
  EXPECT_EQ(call(*registry, "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
                 {endpoint, Value(Data(16)), Value("mine")}),
            (Array{Value(false), Value("Invalid passkey for the registration.")}));
  EXPECT_EQ(call(*registry, "xpcListenerEndpointForPasskey:withName:withReply:",
                 {Value(Data(16)), Value("mine")}),
            std::nullopt);
  EXPECT_FALSE(invalid_);
}

TEST_F(XPCStartUpTest, System11_0HasNoListenersAndAllServers) {
  system_.setRelease("20.0.0", {11, 0, 0});
  start();
  EXPECT_EQ(manager().xpcListener(), nullptr);
  EXPECT_EQ(manager().execHandlerXPCListener(), nullptr);
  EXPECT_EQ(manager().xpcHandler(), nullptr);
  EXPECT_EQ(manager().execHandler(), nullptr);
  const auto nobody = connect(client_.xpc.makeConnection("com.vantor.common.servicemanager"),
                              "ORBServiceManagerXPCInterfaceProtocol");
  loop_.runReady();
  EXPECT_TRUE(invalid_);
  for (const auto& server : {manager().installerConnection(), manager().userInterfaceConnection(),
                             manager().deamonConnection()}) {
    ASSERT_NE(server, nullptr);
    EXPECT_TRUE(server->isValid());
  }
  ASSERT_EQ(announcements_.size(), 1u);
  EXPECT_EQ(announcements_[0].name, kDidStart);
}

TEST_F(XPCStartUpTest, AnInvalidNameIsNotRegistered) {
  start();
  const auto registry = connect(client_.xpc.makeConnection("com.vantor.common.servicemanager"),
                                "ORBServiceManagerXPCInterfaceProtocol");
  const auto own = client_.xpc.makeAnonymousListener();
  const Value endpoint(std::shared_ptr<const RemoteObject>(own->endpoint()));
  for (const Value& name : {Value(), Value(7)}) {
    EXPECT_EQ(call(*registry, "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
                   {endpoint, passkey(), name}),
              (Array{Value(false), Value("There is no name to register it under.")}));
    EXPECT_EQ(
        call(*registry, "xpcListenerEndpointForPasskey:withName:withReply:", {passkey(), name}),
        Array{Value()});
  }
  EXPECT_TRUE(requests_.empty());
}

TEST_F(XPCStartUpTest, EachHandlerLogsANewConnection) {
  start();
  const auto registry = connect(client_.xpc.makeConnection("com.vantor.common.servicemanager"),
                                "ORBServiceManagerXPCInterfaceProtocol");
  const auto service =
      connect(client_.xpc.makeConnection(manager().execHandlerXPCListener()->endpoint()),
              "ORBExecutableInfoProtocol");
  loop_.runReady();
  queues_.runPending();
  std::vector<std::string> accepted;
  for (const auto& message : logSink_.take()) {
    if (!message.text.ends_with("Received a new connection request. pid: 300, uid: 501")) continue;
    EXPECT_EQ(message.level, ASL_LEVEL_DEBUG);
    accepted.push_back(message.text.substr(0, message.text.find(':')));
  }
  EXPECT_THAT(accepted, testing::UnorderedElementsAre("[ORBServiceManagerXPCHandler.cpp",
                                                      "[ORBExecInfoHandler.cpp"));
}

TEST_F(XPCStartUpTest, TheMinorVersionAloneDecides) {
  for (const auto& [major, minor, expected] :
       {std::tuple(10u, 7u, false), std::tuple(10u, 8u, true), std::tuple(9u, 9u, true)}) {
    manager_.reset();
    loop_.runReady();
    system_.setRelease("15.0.0", {major, minor, 0});
    start();
    EXPECT_EQ(manager().xpcListener() != nullptr, expected) << major << "." << minor;
  }
}

TEST_F(XPCStartUpTest, TheDaemonsEndRemovesItsDelegate) {
  start();
  const auto handler = manager().execHandler();
  manager_.reset();
  attributes_.set("/file", "com.apple.quarantine", "0;1;agent;id");
  EXPECT_EQ(handler->getURLFromQuarantineForFile("/file"), std::nullopt);
}

}  // namespace
