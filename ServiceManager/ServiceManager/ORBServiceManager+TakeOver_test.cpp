// The daemon is ready when it watches every service that runs.

#include <chrono>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class DaemonTakeOver : public StartUpFixture {
 protected:
  void startAndAwaitReadiness() {
    manager().backgroundServiceDidFinishLaunching({});
    manager().backgroundServiceWhenReady([this] { ++ready_; });
  }
  bool isTakingOver() { return report_.overview(picture())[kFactIsTakingOver] == Value(true); }

  int ready_ = 0;
};

TEST_F(DaemonTakeOver, TheDaemonIsReadyWhenAllServicesAreWatched) {
  startConfigurationServer();
  startAndAwaitReadiness();
  loop_.runReady();
  EXPECT_EQ(ready_, 0);
  EXPECT_TRUE(isTakingOver());
  loop_.advanceBy(1s);
  EXPECT_EQ(ready_, 1);
  EXPECT_FALSE(isTakingOver());
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
  loop_.advanceBy(1h);
  EXPECT_EQ(ready_, 1);
}

TEST_F(DaemonTakeOver, AServiceWithoutAProcessIsWaitedFor) {
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"JobSpec", Dictionary{{"Program", "agent"}}}}));
  install(catalogue(services));
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  jobs_.endProcess(kAgent);  // Its throttle delays the next start.
  manager_.reset();
  startAndAwaitReadiness();
  loop_.advanceBy(1s);
  EXPECT_EQ(ready_, 0);
  loop_.advanceBy(9s);
  EXPECT_EQ(ready_, 1);
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(DaemonTakeOver, WithoutTheConfigurationServerReadinessIsBounded) {
  startAndAwaitReadiness();
  loop_.advanceBy(TakeOver::kTakeOverTime - 1ns);
  EXPECT_EQ(ready_, 0);
  loop_.advanceBy(1ns);
  EXPECT_EQ(ready_, 1);
  EXPECT_FALSE(isTakingOver());
}

TEST_F(DaemonTakeOver, AnIdleDaemonIsReadyAtOnce) {
  installProduct("unknown");
  startAndAwaitReadiness();
  EXPECT_EQ(ready_, 0);  // The rights are still being acquired.
  loop_.runReady();
  EXPECT_EQ(ready_, 1);
}

TEST_F(DaemonTakeOver, ADaemonMayEndBeforeItIsReady) {
  startConfigurationServer();
  startAndAwaitReadiness();
  loop_.advanceBy(100ms);
  manager_.reset();
  loop_.advanceBy(1min);
  EXPECT_LE(ready_, 1);
}

}  // namespace
