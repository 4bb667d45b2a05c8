// Starts on other systems, and with catalogues whose optional parts are wrong.

#include <functional>
#include <string>
#include <utility>

#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

class StartUpEdgesTest : public StartUpFixture {
 protected:
  // Starts the daemon. `event` happens when it asks whether the configuration server is up.
  void startWith(std::function<void()> event) {
    manager().backgroundServiceDidFinishLaunching({});
    // Behind the turn of the worker, which acquires the rights, and that of the answer.
    loop_.post([this, event = std::move(event)] { loop_.post(event); });
    loop_.runReady();
  }
  bool isVended(const char* name) {
    Program other(*this, 300);
    return other.connections.connectionWithRegisteredName(name) != nullptr;
  }
};

TEST_F(StartUpEdgesTest, OnVersionElevenTheThreeServersAreVended) {
  system_.setRelease("20.0.0", {11, 0, 0});
  start();
  for (const char* name : {"com.vantor.servicemanager.installer.server",
                           "com.vantor.servicemanager.userinterface.server",
                           "com.vantor.common.servicemanager.auth"}) {
    EXPECT_TRUE(isVended(name)) << name;
  }
  EXPECT_THAT(announcements_, ElementsAre(Field(&DistributedNotification::name, kDidStart)));
}

TEST_F(StartUpEdgesTest, AnIdleDaemonVendsNothing) {
  files_.remove(kProductFile);
  start();
  for (const char* name : {"com.vantor.servicemanager.installer.server",
                           "com.vantor.servicemanager.userinterface.server",
                           "com.vantor.common.servicemanager.auth"}) {
    EXPECT_FALSE(isVended(name)) << name;
  }
  EXPECT_FALSE(manager().watchDog());
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(StartUpEdgesTest, AServerThatHungFirstIsNoticedAtOnce) {
  startConfigurationServer();
  configurationProgram_->transport.hang();
  start();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  stopConfigurationServer();
  startConfigurationServer();
  loop_.advanceBy(std::chrono::seconds(1));
  takeLog();
  post("com.vantor.notification.configd.didstart");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
}

// The server's answer is on its way when its end is announced.
TEST_F(StartUpEdgesTest, AServerThatEndsDuringTheStartIsStartedAgain) {
  startConfigurationServer();
  startWith([this] {
    EXPECT_TRUE(manager().watchDog());
    manager().handleGlobalSettingsServerWillShutdown({});
  });
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_TRUE(isRunning(kPrimary));
}

TEST_F(StartUpEdgesTest, AnInstallerDuringTheStartIsLeftAlone) {
  startConfigurationServer();
  startWith([this] {
    EXPECT_TRUE(manager().watchDog());
    manager().shutdownServices({}, {});
  });
  loop_.advanceBy(std::chrono::seconds(1));
  EXPECT_EQ(manager().operatingMode(), kInstaller);
  EXPECT_FALSE(isRunning(kPrimary));
}

TEST_F(StartUpEdgesTest, AServerThatHungLaterIsNoticedAtOnce) {
  startConfigurationServer();
  start();
  loop_.advanceBy(std::chrono::seconds(1));
  configurationProgram_->transport.hang();
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  manager().evaluateRunningModeAfterInstallerEvent();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  stopConfigurationServer();
  startConfigurationServer();
  takeLog();
  post("com.vantor.notification.configd.didstart");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
}

// A key that a service can do without, and a value of a type that it should not have.
class WrongOptionalTest : public StartUpEdgesTest,
                          public testing::WithParamInterface<std::pair<const char*, Value>> {};

TEST_P(WrongOptionalTest, DoesNotAffectTheStart) {
  const auto& [key, wrong] = GetParam();
  Dictionary wrongAtRoot = catalogue();
  wrongAtRoot.set(key, wrong);
  Dictionary services = *wrongAtRoot["Services"].dictionary();
  Dictionary agent = entry("agent");
  agent.set(key, wrong);
  services.set(kAgent, agent);
  wrongAtRoot.set("Services", services);
  install(wrongAtRoot);
  startConfigurationServer();
  start();
  loop_.advanceBy(std::chrono::milliseconds(100));
  EXPECT_THAT(announcements_, ElementsAre(Field(&DistributedNotification::name, kDidStart)));
  EXPECT_TRUE(isRunning(kPrimary));
  EXPECT_TRUE(isRunning(kHelper));
}

INSTANTIATE_TEST_SUITE_P(Types, WrongOptionalTest,
                         testing::Values(std::pair("Features", Value("text")),
                                         std::pair("Features", Value(5)),
                                         std::pair("Features", Value(Array{Dictionary{}})),
                                         std::pair("KernelExtensions", Value("text")),
                                         std::pair("KernelExtensions", Value(Dictionary{{"a", 1}})),
                                         std::pair("Notification", Value(5)),
                                         std::pair("Notification", Value(Dictionary{{"a", 1}})),
                                         std::pair("MinimumOSVersion", Value(10.11)),
                                         std::pair("MinimumOSVersion", Value(Array{"10.11"}))));

}  // namespace
