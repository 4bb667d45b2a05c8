#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/ServiceHealth_contract.h"

namespace {

using namespace platform;

class RealHealthRecord final : public HealthRecordUnderTest {
 public:
  RealHealthRecord() { addServiceManagerProtocols(protocols_); }
  ServiceHealth& health() override { return health_; }

 private:
  VirtualRunLoop loop_;
  VirtualSerialQueues queues_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  ConnectedProgram program_{loop_, transport_,
                            [](std::string_view name) { return std::string(name); }};
  ProtocolTable protocols_;
  FakeSystemInformation system_;
  ORBServiceManagerHealthInfo health_{{queues_, program_.connections, protocols_, system_}};
};

std::unique_ptr<HealthRecordUnderTest> makeRealHealthRecord() {
  return std::make_unique<RealHealthRecord>();
}

INSTANTIATE_TEST_SUITE_P(Real, ServiceHealthContract, testing::Values(&makeRealHealthRecord));

}  // namespace
