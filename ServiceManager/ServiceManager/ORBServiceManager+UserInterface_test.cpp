#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

class UserInterfaceTest : public ServiceManagerFixture {
 protected:
  UserInterfaceTest() {
    use(catalogue());
    useHealth();
  }
};

// Stopping and starting.

TEST_F(UserInterfaceTest, AStoppedServiceStaysStoppedUntilItIsStarted) {
  evaluate();
  takeReports();
  manager().stopServices({kAgent});
  EXPECT_TRUE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  loop_.runReady();  // Its exit makes everything be evaluated.
  evaluate();
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent", "forced stop com.example.agent",
                                         "start com.example.configd", "start com.example.helper",
                                         "start com.example.configd", "start com.example.helper"));
  EXPECT_EQ(countInLog("com.example.agent is not actively being monitored as per the request of "
                       "the user interface"),
            2u);

  manager().startServices({kAgent});
  EXPECT_FALSE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  loop_.runReady();
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(UserInterfaceTest, ServicesAreStoppedAndStartedInTheirOrder) {
  evaluate();
  takeReports();
  manager().stopServices({kHelper, 5, kAgent});
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.helper", "stop com.example.agent"));
  enterMode(ORBOperatingModeInstaller);
  loop_.runReady();
  takeReports();
  manager().startServices({kHelper, Value::nullMarker(), kAgent});
  loop_.runReady();
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.helper", "start com.example.agent"));
}

TEST_F(UserInterfaceTest, AServiceOutsideTheCatalogueIsNotStarted) {
  manager().startServices({"com.example.unknown"});
  manager().stopServices({"com.example.unknown"});
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_FALSE(manager().monitoredProcessesInfo().contains("com.example.unknown"));
}

}  // namespace
