// Extensions that can't be used, beside services that need them and others that don't.

#include <chrono>
#include <string>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"
#include "ServiceManager/Supervision/KernelExtensions_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class UnusableExtensionsTest : public WithKernelExtensions<ServiceManagerFixture> {
 protected:
  static constexpr int kUsers = 20;

  // Services that need the network extension, besides the helper that needs nothing.
  void useMany() {
    Dictionary services{{kPrimary, entry("configd")}, {kHelper, entry("helper")}};
    for (int i = 0; i < kUsers; ++i) {
      const std::string name = "user" + std::to_string(i);
      services.set("com.example." + name, entry(name, {{"KernelExtensions", Array{"net"}}}));
    }
    Dictionary all = catalogue(services);
    all.set("KernelExtensions", catalogueOfKexts()["KernelExtensions"]);
    use(all);
  }
  std::size_t evaluationsOfUsers() { return countInLog("Evaluating service: com.example.user"); }
};

// Each is evaluated again 5 seconds after the extension has failed, and not more often.
TEST_F(UnusableExtensionsTest, EvaluationsOfItsServicesDoNotMultiply) {
  startConfigurationServer();
  extensions_.setLoadFails(kNetwork, true);
  useMany();
  evaluate();
  loop_.advanceBy(5min);
  takeLog();
  loop_.advanceBy(5min);
  EXPECT_GT(evaluationsOfUsers(), kUsers * 30u);
  EXPECT_LE(evaluationsOfUsers(), kUsers * 61u);
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_F(UnusableExtensionsTest, OneThatIsTooOldStopsNoOtherService) {
  startConfigurationServer();
  network_.version = integer(4);
  extensions_.setLoaded(kNetwork);
  extensions_.setBusy(kNetwork, 1'000'000);
  useMany();
  evaluate();
  for (int minute = 0; minute < 10; ++minute) {
    loop_.advanceBy(1min);
    ASSERT_TRUE(isRunning(kHelper)) << minute;
    ASSERT_EQ(jobs_.starts(kHelper), 1u);
  }
  network_.version = integer(5);
  loop_.advanceBy(30s);
  for (int i = 0; i < kUsers; ++i) {
    EXPECT_TRUE(isRunning(("com.example.user" + std::to_string(i)).c_str())) << i;
  }
}

// The service runs when the daemon comes, and its extension is too old. Unloading costs it its job.
TEST_F(UnusableExtensionsTest, AServiceRunsAgainAfterItsExtensionWasReloaded) {
  startConfigurationServer();
  evaluate();
  ASSERT_TRUE(isRunning(kHelper));
  restart();  // The new daemon knows nothing of the extensions.
  network_.version = integer(4);
  extensions_.setOnLoad(kNetwork, [this] { network_.version = integer(5); });
  evaluate();
  loop_.advanceBy(1s);
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_TRUE(isRunning(kAgent));
  loop_.advanceBy(1min);
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kHelper));
}

// A service is stopped while its extension is being loaded: the load goes on, the service does not.
TEST_F(UnusableExtensionsTest, AStopDuringTheLoadIsNotUndone) {
  startConfigurationServer();
  evaluate();
  extensions_.crash(kNetwork);
  manager().stopServices({kHelper});
  loop_.runReady();
  manager().startServices({kHelper});
  manager().stopServices({kHelper});
  loop_.advanceBy(1min);
  EXPECT_FALSE(isRunning(kHelper));
}

}  // namespace
