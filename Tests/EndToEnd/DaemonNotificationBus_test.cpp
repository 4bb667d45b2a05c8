// The notification bus goes, and with it what is announced meanwhile.

#include <csignal>

#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonNotificationBus : public DaemonFixture {
 protected:
  static constexpr char kEvaluatingService[] = "Evaluating service: com.vantor.test.0\n";

  // The daemon waits for the configuration server, which it takes to be on its way down.
  void makeDaemonWait() {
    const std::size_t before = root_.logCount("Primary service is shutting down");
    root_.center().postNotificationName("com.vantor.notification.configd.willshutdown",
                                        std::nullopt, {},
                                        NSNotificationPosting::kPostToAllSessions);
    root_.awaitLog("Primary service is shutting down", before + 1);
  }
};

TEST_F(DaemonNotificationBus, ItDiesWhileTheConfigurationServerRestarts) {
  start(1);
  for (int i = 0; i < 5 && !HasFailure(); ++i) {
    root_.await("the bus", [&] { return root_.processOf(DaemonRoot::kBus) > 0; });
    makeDaemonWait();
    const std::size_t evaluations = root_.logCount(kEvaluatingService);
    const ProcessId bus = root_.processOf(DaemonRoot::kBus);
    const ProcessId server = root_.processOf(DaemonRoot::kPrimary);
    ASSERT_GT(server, 0);
    ASSERT_EQ(::kill(bus, SIGKILL), 0);
    ASSERT_EQ(::kill(server, SIGKILL), 0);
    root_.awaitLog(kEvaluatingService, evaluations + 1);
  }
}

TEST_F(DaemonNotificationBus, TheConfigurationServerRestartsWhileThereIsNone) {
  start(1);
  makeDaemonWait();
  const std::size_t evaluations = root_.logCount(kEvaluatingService);
  const std::size_t lost = root_.logCount("configd.didstart\" was not posted");
  root_.remove(DaemonRoot::kBus);
  ASSERT_EQ(::kill(root_.processOf(DaemonRoot::kPrimary), SIGKILL), 0);
  root_.awaitLog("configd.didstart\" was not posted", lost + 1);
  EXPECT_EQ(root_.logCount(kEvaluatingService), evaluations);
  root_.startBus();
  root_.awaitLog(kEvaluatingService, evaluations + 1);
}

}  // namespace
}  // namespace platform
