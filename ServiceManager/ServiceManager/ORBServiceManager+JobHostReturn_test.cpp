// What could not be done while the job host did not answer is done once it does.

#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::IsEmpty;

constexpr auto kNormal = ORBOperatingModeNormal;
constexpr auto kWaiting = ORBOperatingModeWaitingForPrimaryService;

class JobHostReturnTest : public ServiceManagerFixture {
 protected:
  JobHostReturnTest() {
    use(catalogue());
    useConfigurationServer();
  }

  std::size_t evaluations() { return countInLog("Evaluating the system configuration"); }
};

TEST_F(JobHostReturnTest, WhenTheJobHostReturnsWhatCouldNotBeStartedIs) {
  jobs_.setReachable(false);
  manager().evaluateSystemConfiguration();
  jobs_.setReachable(true);
  loop_.advanceBy(1h);
  ASSERT_THAT(jobs_.labels(), IsEmpty());  // There is no health record that would retry.
  takeLog();
  manager().handleJobHostReturn();
  EXPECT_EQ(evaluations(), 1u);
  EXPECT_EQ(countInLog("The job host answers again"), 1u);
  for (const char* label : {kPrimary, kAgent, kHelper}) EXPECT_TRUE(isRunning(label)) << label;
}

TEST_F(JobHostReturnTest, WhenTheJobHostReturnsWhatCouldNotBeStoppedIs) {
  settings("common")["on"] = 1;
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"Features", Array{"web"}}}));
  Dictionary all = catalogue(services);
  all.set(
      "Features",
      Dictionary{
          {"web", Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                         {"Switches", Dictionary{{"on", 1}}}}}}}}});
  use(all);
  manager().evaluateSystemConfiguration();
  ASSERT_TRUE(isRunning(kAgent));
  settings_["common"]["on"] = 0;
  manager().evaluateSystemConfiguration();
  jobs_.setReachable(false);
  loop_.advanceBy(1min);
  ASSERT_TRUE(isRunning(kAgent));
  jobs_.setReachable(true);
  manager().handleJobHostReturn();
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(JobHostReturnTest, TheReturnOfTheJobHostStartsNothingThatTheUserInterfaceStopped) {
  manager().stopServices({kPrimary, kAgent});
  for (const auto mode : {kNormal, kWaiting}) {
    manager().setOperatingMode(mode);
    manager().handleJobHostReturn();
    EXPECT_FALSE(isRunning(kPrimary));
    EXPECT_FALSE(isRunning(kAgent));
  }
}

}  // namespace
