// The health record, as reporters in other programs read it.

#include <memory>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

class HealthServerTest : public ServiceManagerFixture {
 protected:
  std::unique_ptr<VantorDistantObject> reporter(const SystemInformation& system) {
    return std::make_unique<VantorDistantObject>(
        VantorDistantObject::Environment{loop_, program_.connections, *otherCenter_,
                                         program_.center, protocols_, system},
        "ServiceManagerHealthInfo", kServiceManagerHealthProtocol, std::nullopt);
  }

  void crashThreeTimes() {
    for (int i = 0; i < 3; ++i) {
      health_->reportStartForService(kAgent);
      health_->reportForcedStopForService(kAgent);
    }
  }

  std::unique_ptr<ORBServiceManagerHealthInfo> health_ = makeHealthInfo();
  Program program_{*this, 300};
};

TEST_F(HealthServerTest, AnAuthenticatedReporterReadsTheSummary) {
  const auto reporter = this->reporter(system_);
  EXPECT_EQ(reporter->sendMessage("isReadyToReport"), Value(false));
  health_->setMonitoredServices({kAgent});
  crashThreeTimes();
  health_->reportStartForService(kAgent);
  EXPECT_EQ(reporter->sendMessage("getHealthStateForServices"), Value(Dictionary{{kAgent, 1}}));
  EXPECT_EQ(reporter->sendMessage("getHealthStateForServices"), Value(Dictionary{{kAgent, 0}}));
  EXPECT_EQ(reporter->sendMessage("isReadyToReport"), Value(true));
}

TEST_F(HealthServerTest, AStrangerIsRefusedAndClearsNothing) {
  crashThreeTimes();
  FakeSystemInformation otherBoot;
  otherBoot.setBootTime(FakeSystemInformation::kBootTime + 1);
  const auto stranger = reporter(otherBoot);
  const MessageResult answer = stranger->sendMessage("getHealthStateForServices");
  EXPECT_TRUE(answer && answer->isNil());
  EXPECT_TRUE(stranger->recentException());
  EXPECT_EQ(health_->crashCounters()[kAgent], Value(3));
}

TEST_F(HealthServerTest, OnlyTheProtocolsMessagesAreServed) {
  VantorDistantObject other(
      {loop_, program_.connections, *otherCenter_, program_.center, protocols_, system_},
      "ServiceManagerHealthInfo", kORBServiceManagerUserInterfaceProtocol, std::nullopt);
  other.sendMessage("services");
  ASSERT_TRUE(other.recentException());
  EXPECT_EQ(other.recentException()->name, kNSInvalidArgumentException);
  const MessageResult unknown = health_->receiveMessage("crashLimit", {});
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error().reason,
            "-[ORBServiceManagerHealthInfo crashLimit]: unrecognized selector sent to instance");
}

TEST_F(HealthServerTest, OnlyARegisteredConnectionHasADelegate) {
  EXPECT_EQ(health_->distantConnection()->delegate(), health_->connectionAuthenticator().get());
  const auto second = makeHealthInfo();  // The name is taken.
  EXPECT_FALSE(second->distantConnection()->delegate());
  EXPECT_TRUE(second->distantConnection()->isValid());
  EXPECT_TRUE(second->connectionAuthenticator());
  EXPECT_THAT(takeLog(), IsEmpty());
  // Only the platform logs why no reporter will find it.
  EXPECT_EQ(systemSink_.count("The name \"ServiceManagerHealthInfo\" was not registered"), 1u);
  second->reportUnreadyStateForService(kAgent);
  EXPECT_THAT(second->problemServices(), ElementsAre(kAgent));
}

TEST_F(HealthServerTest, TheNameIsFreeOnceTheRecordHasEnded) {
  health_.reset();
  health_ = makeHealthInfo();
  EXPECT_TRUE(health_->distantConnection()->delegate());
  EXPECT_EQ(reporter(system_)->sendMessage("isReadyToReport"), Value(false));
}

}  // namespace
