// The notification bus ends, and announcements are lost meanwhile.

#include <csignal>

#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonNotificationBus : public DaemonFixture {
 protected:
  static constexpr char kEvaluatingService[] = "Evaluating service: com.vantor.test.0\n";

  // The daemon waits for the configuration server, which has announced its end.
  void makeDaemonWait() {
    const std::size_t before = root_.logCount("Primary service is shutting down");
    root_.center().postNotificationName("com.vantor.notification.configd.willshutdown",
                                        std::nullopt, {},
                                        NSNotificationPosting::kPostToAllSessions);
    root_.awaitLog("Primary service is shutting down", before + 1);
  }
};

TEST_F(DaemonNotificationBus, ItDiesWhileTheConfigurationServerRestarts) {
  constexpr char kReturn[] = "Notifications may have been missed\n";
  start(1);
  std::size_t ownReturns = 0;
  const auto returned = root_.center().observeReturn([&] {
    ++ownReturns;
    root_.changed();
  });
  for (int i = 0; i < 5 && !HasFailure(); ++i) {
    makeDaemonWait();
    const std::size_t returns = root_.logCount(kReturn);
    const std::size_t ownBefore = ownReturns;
    root_.kill(DaemonRoot::kBus, SIGKILL);
    root_.kill(DaemonRoot::kPrimary, SIGKILL);
    root_.awaitLog(kReturn, returns + 1);
    root_.await("the evaluation behind that",
                [&] { return root_.logHasBehind(kReturn, kEvaluatingService); });
    // Earlier posts reach nobody.
    root_.await("the test's own return", [&] { return ownReturns > ownBefore; });
  }
}

TEST_F(DaemonNotificationBus, TheConfigurationServerRestartsWhileThereIsNone) {
  start(1);
  makeDaemonWait();
  const std::size_t evaluations = root_.logCount(kEvaluatingService);
  const std::size_t lost = root_.logCount("configd.didstart\" was not posted");
  root_.remove(DaemonRoot::kBus);
  root_.kill(DaemonRoot::kPrimary, SIGKILL);
  root_.awaitLog("configd.didstart\" was not posted", lost + 1);
  EXPECT_EQ(root_.logCount(kEvaluatingService), evaluations);
  root_.startBus();
  root_.awaitLog(kEvaluatingService, evaluations + 1);
}

}  // namespace
}  // namespace platform
