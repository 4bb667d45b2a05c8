// Everything that misbehaves beside a daemon, at once.

#include <chrono>
#include <string>

#include "Tests/EndToEnd/Storm.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DaemonStormLong : public testing::Test {
 protected:
  static constexpr Duration kAnswerTime = 5s;

  // The operator asks, a healthy service is killed, and both are served.
  void round(int number) {
    const std::string label = Storm::healthy(number);
    EXPECT_LT(storm_.control({"list"}, label), kAnswerTime);
    EXPECT_LT(storm_.killUntilBack(label), kAnswerTime);
    const std::string runs =
        label + " runs as process " + std::to_string(storm_.root().processOf(label));
    EXPECT_LT(storm_.control({"explain", label}, runs), kAnswerTime);
    for (const std::string& troubled :
         {Storm::crashing(number % Storm::kCrashing), std::string(Storm::kNeedsMissing),
          std::string(Storm::kNeedsDeaf)}) {
      EXPECT_LT(storm_.control({"explain", troubled}, troubled), kAnswerTime);
    }
    storm_.expectNoneDoubled();
  }
  // The ends of services that the daemon has noticed.
  std::size_t ends() { return storm_.root().logCount(" with PID ["); }

  Storm storm_{Weather::kStorm};
};

TEST_F(DaemonStormLong, HoldsUpNeitherOperatorNorHealthyServices) {
  constexpr std::size_t kCrashes = 100;
  constexpr std::size_t kMostRounds = 300;
  [[maybe_unused]] constexpr long kMaxGrowth = 16 * 1024;
  [[maybe_unused]] const long memory = storm_.memory();
  const ProcessId daemon = storm_.root().processOf(DaemonRoot::kDaemon);
  const std::size_t before = ends();
  // Each round ends a healthy service, too.
  for (std::size_t number = 0; ends() < before + number + kCrashes && !HasFailure(); ++number) {
    ASSERT_LT(number, kMostRounds) << "few services crash";
    round(static_cast<int>(number));
  }

  if (storm_.hasSilentClients()) {
    EXPECT_GE(storm_.root().logCount("Did remove an abandoned remote user client"),
              std::size_t{Storm::kSilentClients});
  }

  EXPECT_LT(storm_.control({"explain", Storm::kSwitched}, "its settings server gives no answer"),
            kAnswerTime);
  const std::string stopped = Storm::healthy(0);
  EXPECT_LT(storm_.control({"stop", stopped}, stopped + " is stopped.\n"), kAnswerTime);
  EXPECT_EQ(storm_.root().processOf(stopped), 0);
  EXPECT_EQ(storm_.root().processOf(Storm::kNeedsMissing), 0);
  EXPECT_EQ(storm_.root().processOf(Storm::kNeedsDeaf), 0);
  EXPECT_EQ(storm_.root().processOf(DaemonRoot::kDaemon), daemon);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  EXPECT_LT(storm_.memory(), memory + kMaxGrowth);
#endif
  EXPECT_LT(storm_.terminate(), 5s);
}

}  // namespace
}  // namespace platform
