#include <memory>
#include <optional>
#include <string>

#include "Platform/Logging/UserLines.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "ServiceManager/ServiceManager/EndpointRegistry_fixture.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;

// Users of the registry other than root and the daemon's own.
class RegistryUsersTest : public XPCStartUpTest {
 protected:
  struct User {
    User(RegistryUsersTest& test, ProcessId process, std::uint32_t user)
        : xpc(test.network_, {process, user, 20}, test.systemLog_),
          registry(test.connect(xpc.xpc.makeConnection("com.vantor.common.servicemanager"),
                                "ORBServiceManagerXPCInterfaceProtocol")),
          listener(xpc.xpc.makeAnonymousListener()) {}
    FakeXPC xpc;
    std::shared_ptr<NSXPCConnection> registry;
    std::shared_ptr<NSXPCListener> listener;
  };

  // The users have connected.
  RegistryUsersTest() { loop_.runReady(); }

  std::optional<Array> registerAs(User& user, const std::string& name) {
    const Value endpoint(std::shared_ptr<const RemoteObject>(user.listener->endpoint()));
    return call(*user.registry, "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
                {endpoint, passkey(), Value(name)});
  }

  static Array done() { return {Value(true), Value()}; }
  static Array refused(const char* why) { return {Value(false), Value(why)}; }

  // The users connect to a daemon that serves.
  const bool isStarted_ = [this] {
    start();
    return true;
  }();
  User anna_{*this, 300, 501};
  User bert_{*this, 301, 502};
  User root_{*this, 302, 0};
};

TEST_F(RegistryUsersTest, ANameIsReplacedOnlyByItsUserOrRoot) {
  EXPECT_EQ(registerAs(anna_, "name"), done());
  EXPECT_EQ(registerAs(anna_, "name"), done());
  EXPECT_EQ(registerAs(bert_, "name"), refused("The name belongs to another user."));
  EXPECT_EQ(registerAs(root_, "name"), done());
  EXPECT_EQ(registerAs(anna_, "name"), refused("The name belongs to another user."));
}

TEST_F(RegistryUsersTest, TheNameOfADeadOwnerIsReplacedByAnybody) {
  EXPECT_EQ(registerAs(anna_, "name"), done());
  anna_.listener.reset();
  loop_.runReady();
  EXPECT_EQ(registerAs(bert_, "name"), done());
}

TEST_F(RegistryUsersTest, TheDaemonsOwnNameIsNotReplaced) {
  EXPECT_EQ(registerAs(anna_, "com.vantor.xpc.name.execinfohandler"),
            refused("The name belongs to another user."));
}

TEST_F(RegistryUsersTest, TheNamesOfAUserAreLimited) {
  for (std::size_t i = 0; i < ORBServiceManagerXPCHandler::kMaxNamesOfUser; ++i) {
    ASSERT_EQ(registerAs(anna_, "name " + std::to_string(i)), done());
  }
  EXPECT_EQ(registerAs(anna_, "one more"), refused("Too many names are registered."));
  EXPECT_EQ(registerAs(anna_, "name 0"), done());
  EXPECT_EQ(registerAs(bert_, "one more"), done());
  EXPECT_EQ(registerAs(root_, "yet another"), done());
}

TEST_F(RegistryUsersTest, AFloodOfRefusedRequestsIsNotAFloodOfLines) {
  takeLog();
  constexpr std::size_t kRequests = 1000;
  for (std::size_t i = 0; i < kRequests; ++i) {
    call(*anna_.registry,
         "xpcListenerEndpointForPasskey:withName:withReply:", {Value(Data(16)), Value("name")});
  }
  EXPECT_LE(takeLog().size(), UserLines::kLinesPerUser);
  loop_.advanceBy(UserLines::kPeriod);
  EXPECT_EQ(systemSink_.count("lines about requests of user 501 were left out"), 1u);
}

// A registry whose main loop is busy, so that unknown names wait to be asked for.
class WantedNamesTest : public XPCStartUpTest {
 protected:
  static constexpr char kService[] = "registry";

  WantedNamesTest() {
    listener_->setDelegate(registry_);
    listener_->resume();
  }

  void lookUpMany(FakeXPC& user, const std::string& prefix, std::size_t names) {
    const auto connection =
        connect(user.xpc.makeConnection(kService), kORBServiceManagerXPCInterfaceProtocol);
    for (std::size_t i = 0; i < names; ++i) {
      const std::string name = prefix + std::to_string(i);
      call(*connection,
           "xpcListenerEndpointForPasskey:withName:withReply:", {passkey(), Value(name)});
    }
  }
  // The names that are asked for when the main loop runs.
  std::size_t requested() {
    requests_.clear();
    mainLoop_.runReady();
    loop_.runReady();
    return requests_.size();
  }

  VirtualRunLoop mainLoop_;
  FakeXPC server_{network_, {200, 0, 0}, systemLog_};
  FakeXPC anna_{network_, {300, 501, 20}, systemLog_};
  FakeXPC bert_{network_, {301, 502, 20}, systemLog_};
  FakeXPC root_{network_, {302, 0, 0}, systemLog_};
  std::shared_ptr<ORBServiceManagerXPCHandler> registry_ =
      std::make_shared<ORBServiceManagerXPCHandler>(mainLoop_, system_, *center_, protocols_);
  std::shared_ptr<NSXPCListener> listener_ = server_.xpc.makeListener(kService);
};

TEST_F(WantedNamesTest, TheNamesThatAUserWantsAreLimited) {
  constexpr std::size_t kMost = ORBServiceManagerXPCHandler::kMaxWantedNamesOfUser;
  lookUpMany(anna_, "anna", kMost + 10);
  EXPECT_EQ(requested(), kMost);
  lookUpMany(anna_, "anna", kMost + 10);
  lookUpMany(bert_, "bert", 1);
  lookUpMany(root_, "root", kMost + 10);
  EXPECT_EQ(requested(), kMost + 1 + kMost + 10);
}

}  // namespace
