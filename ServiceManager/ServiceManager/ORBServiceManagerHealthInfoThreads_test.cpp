// The health record on a queue that has threads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Linux/RunLoops/AsioSerialQueues.h"
#include "Platform/SystemFacts/Thread.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;

class HealthInfoThreadsTest : public testing::Test {
 protected:
  HealthInfoThreadsTest() { addServiceManagerProtocols(protocols_); }

  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  AsioSerialQueues queues_{2};
  Logger2State logger2_{log_, queues_};
  Logger2Binding binding_{logger2_};
  FakeSystemInformation system_;
  VirtualRunLoop loop_;
  NotificationCenter center_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  NamedConnections connections_{loop_, transport_, center_, log_,
                                [](std::string_view name) { return std::string(name); }};
  ProtocolTable protocols_;
};

TEST_F(HealthInfoThreadsTest, EachQueryHasSeenEveryReportBefore) {
  constexpr int kRounds = 100;
  {
    ORBServiceManagerHealthInfo health({queues_, connections_, protocols_, system_});
    health.setMonitoredServices({"agent", "helper"});
    for (int round = 1; round <= kRounds; ++round) {
      health.reportStartForService("agent");
      health.reportForcedStopForService("agent");
      ASSERT_EQ(health.crashCounters()["agent"], Value(round));
      EXPECT_TRUE(health.isReadyToReport());
      health.reportStartForService("agent");
      ASSERT_THAT(health.problemServices(), testing::ElementsAre("helper"));
    }
    EXPECT_EQ(health.getHealthStateForServices(), Value(Dictionary{{"agent", 1}, {"helper", 1}}));
    health.reportStopForService("helper");  // Done before the record ends.
  }
  get_queue(mach_thread_self())->sync([] {});  // Wait until all is written.
  EXPECT_EQ(sink_.count("Reported forced stop for service: agent"), std::size_t{kRounds});
  EXPECT_EQ(sink_.count("Reported stop for service: helper"), 1u);
}

}  // namespace
