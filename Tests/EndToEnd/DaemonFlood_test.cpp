// Other users who flood the daemon in all ways that are known. The figures are those that a flood
// may cost: memory, time of the operator, lines of the log.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <unistd.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonFixture.h"
#include "Tests/EndToEnd/ProcessUse.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

struct Flood {
  const char* way;
  int users;
};
std::ostream& operator<<(std::ostream& out, const Flood& flood) {
  return out << flood.way << " of " << flood.users;
}

constexpr int kFirstUser = 300'001;  // no machine has an account for it
constexpr int kGroup = 65'534;

class FloodFixture : public DaemonFixture, public testing::WithParamInterface<Flood> {
 protected:
  static constexpr long kMaxGrowth = 32 * 1024;  // kibibytes
  static constexpr long kMaxRest = 4 * 1024;
  static constexpr std::size_t kMaxLines = 100;
  // One answer in a hundred may take longer. It is far below this unless others use the machine,
  // too.
  static constexpr Duration kMaxAnswerTime = 5s;

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start programs of other users";
    start(2);
    letEverybodyIn();
    for (int i = 0; i < 20; ++i) ask();  // So that everything has been used once.
    client_.reset();
    memory_ = memory();
    most_ = memory_;
    descriptors_ = descriptors();
    lines_ = root_.logCount("\n");
    processes_ = pids();
  }

  // Floods for this time while root asks, and checks what that has cost.
  void flood(Duration time) {
    std::vector<Duration> times;
    {
      const auto attackers = startAttackers();
      const Instant end = root_.loop().now() + time;
      while (root_.loop().now() < end) {
        times.push_back(ask());
        most_ = std::max(most_, memory());
      }
    }
    std::ranges::sort(times);
    const Duration slow = times.at(times.size() * 99 / 100);
    RecordProperty("answers", static_cast<int>(times.size()));
    RecordProperty("p99_us", static_cast<int>(slow / 1us));
    RecordProperty("growth_KiB", static_cast<int>(most_ - memory_));
    EXPECT_LT(slow, kMaxAnswerTime);
    expectTheRestIsSmall();
    EXPECT_LT(root_.logCount("\n") - lines_, kMaxLines);
    expectNoneLostNoneDoubled(processes_);
    EXPECT_EQ(root_.starts(), 1U);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(most_ - memory_, kMaxGrowth);
#endif
  }

  // They flood until they are destroyed.
  std::unique_ptr<ChildProgram> startAttackers() {
    auto attackers = std::make_unique<ChildProgram>(
        std::vector<std::string>{FLOOD_PROGRAM, root_.path(), GetParam().way,
                                 std::to_string(kFirstUser), std::to_string(GetParam().users),
                                 std::to_string(kGroup)},
        std::vector<std::string>{});
    EXPECT_EQ(attackers->nextLine(), "flooding");
    return attackers;
  }

  std::size_t lines_ = 0;
  std::map<std::string, ProcessId> processes_;

 private:
  // Another user can reach the daemon's sockets from now on.
  void letEverybodyIn() {
    std::filesystem::permissions(root_.path(), std::filesystem::perms(0755));
  }

  // The time of an answer to root over a connection of its own.
  Duration ask() {
    const Instant begun = root_.loop().now();
    UserInterfaceClient asking(root_, UserInterfaceClient::kOperatorServer);
    EXPECT_TRUE(asking.ask("overview"));
    return root_.loop().now() - begun;
  }

  ProcessId daemon() { return root_.processOf(DaemonRoot::kDaemon); }
  long memory() { return privateMemoryOf(daemon()); }
  std::size_t descriptors() { return descriptorsOf(daemon()); }
  // The daemon notices the end of its clients in a few turns, and gives memory back some time
  // later.
  void expectTheRestIsSmall() {
    const auto ticks =
        root_.loop().startTimer(50ms, RunLoop::Repeat::kEvery, [this] { root_.changed(); });
    root_.await("the descriptors of the flood to be closed",
                [this] { return descriptors() <= descriptors_ + names(); });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    root_.await("the memory of the flood to be given back",
                [this] { return memory() - memory_ < kMaxRest; });
    RecordProperty("rest_KiB", static_cast<int>(memory() - memory_));
#endif
  }
  // Names stay until there is no room for others, each with a descriptor.
  std::size_t names() const { return GetParam().way == std::string("names") ? 768 : 0; }

  long memory_ = 0;
  long most_ = 0;
  std::size_t descriptors_ = 0;
};

class DaemonFlood : public FloodFixture {};
TEST_P(DaemonFlood, CostsLittleAndPasses) { flood(1s); }

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
constexpr Duration kLongFlood = 30s;
#else
constexpr Duration kLongFlood = 5s;
#endif

// Services are stopped and started really, within a limit, and each once by a request.
class DaemonChanges : public FloodFixture {
 protected:
  // Some thirty for each change of a service.
  static constexpr std::size_t kMaxLinesOfChanges = 2000;

  void floodForSomeTime() {
    const auto attackers = startAttackers();
    const auto pause = root_.loop().startTimer(3s, RunLoop::Repeat::kOnce, [this] {
      isOver_ = true;
      root_.changed();
    });
    root_.await("the end of the flood", [this] { return isOver_; });
  }

 private:
  bool isOver_ = false;
};
TEST_P(DaemonChanges, AreLimited) {
  floodForSomeTime();
  EXPECT_LT(root_.logCount("\n") - lines_, kMaxLinesOfChanges);
  EXPECT_GT(root_.logCount("too many changes of services"), 0u);
  UserInterfaceClient root(root_);
  EXPECT_TRUE(root.ask("startServices:", {Value(Array{DaemonRoot::label(0)})}));
  EXPECT_TRUE(root.ask("services"));
  awaitServices(root_, {DaemonRoot::label(0)});
  EXPECT_GT(root_.processOf(DaemonRoot::label(0)), 0);
}

// The end of an installer's work is never refused.
class DaemonEvaluations : public DaemonChanges {};
TEST_P(DaemonEvaluations, AreLimitedAndPass) {
  floodForSomeTime();
  EXPECT_LT(root_.logCount("\n") - lines_, kMaxLinesOfChanges);
  EXPECT_EQ(root_.logCount("too many changes of services"), 0u);
  expectNoneLostNoneDoubled(processes_);
  UserInterfaceClient root(root_, UserInterfaceClient::kInstallerServer);
  const std::size_t before = evaluations();
  EXPECT_EQ(root.ask("evaluateServices"), MessageResult(true));
  awaitEvaluation(before);
}

class DaemonFloodLong : public FloodFixture {};
TEST_P(DaemonFloodLong, CostsLittleAndPasses) { flood(kLongFlood); }

std::string nameOf(const testing::TestParamInfo<Flood>& info) {
  return std::string(info.param.way) + std::to_string(info.param.users);
}

constexpr Flood kFloods[] = {
    {"connections", 1}, {"connections", 17}, {"unfinished", 1}, {"unfinished", 17}, {"oneway", 1},
    {"oneway", 17},     {"questions", 1},    {"questions", 17}, {"refused", 1},     {"refused", 17},
    {"descriptors", 1}, {"descriptors", 17}, {"names", 1},      {"names", 17}};
INSTANTIATE_TEST_SUITE_P(, DaemonChanges,
                         testing::Values(Flood{"changes", 1}, Flood{"changes", 17}), nameOf);
INSTANTIATE_TEST_SUITE_P(, DaemonEvaluations,
                         testing::Values(Flood{"evaluations", 1}, Flood{"evaluations", 17}),
                         nameOf);
INSTANTIATE_TEST_SUITE_P(, DaemonFlood, testing::ValuesIn(kFloods), nameOf);
INSTANTIATE_TEST_SUITE_P(, DaemonFloodLong, testing::ValuesIn(kFloods), nameOf);

}  // namespace
}  // namespace platform
