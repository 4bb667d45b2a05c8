// The start of the daemon beside a job host that hangs.

#include <csignal>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonStart : public DaemonFixture {};

// If the main thread waited for the job host, it would go on with the start before it ends.
TEST_F(DaemonStart, AHungJobHostHoldsUpNoSigterm) {
  root_.setCatalogue(DaemonRoot::catalogue(0));
  root_.host().stopHost();
  ChildProgram daemon({root_.daemonProgram()}, {});
  root_.awaitLog("effective GID");
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.waitForExit(), ExitStatus{});
  root_.host().continueHost();
  EXPECT_EQ(root_.logCount("Evaluating primary service"), 0U) << root_.logTail();
}

}  // namespace
}  // namespace platform
