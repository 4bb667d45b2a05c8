#include "Tools/servicemanagerctl/DoctorProbes.h"

#include <cerrno>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Platform/Testing/Machine/FailingSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Tools/servicemanagerctl/DoctorFindings.h"

namespace {

using namespace platform;

TEST(DoctorProbes, ASystemWithoutThreadsIsNoFaultOfAServer) {
  const TemporaryFolder folder;
  VirtualRunLoop loop;
  FakePeerNetwork network(loop);
  FakePeerTransport transport(network, {100, 0, 0});
  PlatformConfiguration configuration;
  configuration.root = folder.path();
  DoctorFacts facts;
  withFailingSystemCall(SYS_clone3, EAGAIN, [&] {
    facts = probe({transport, configuration, loop.wallTime(), folder.path("jobhost")});
  });
  for (const ServerFact& server : {facts.host, facts.daemon, facts.bus}) {
    EXPECT_EQ(server.state, ServerFact::State::kFailed);
    EXPECT_EQ(server.text, kNoThread);
  }
  ASSERT_FALSE(facts.installed);
  EXPECT_EQ(facts.installed.error(), (NotKnown{NotKnown::Why::kFailed, kNoThread}));
  for (const Finding& finding : doctorFindings(facts))
    EXPECT_LT(finding.severity, Finding::Severity::kError) << finding.code << ": " << finding.text;
}

}  // namespace
