// A bus that hangs, or accepts no connection.

#include <chrono>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Tests/EndToEnd/NotificationBus_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// A hung bus, and a centre with a short time-out.
class StoppedBusTest : public NotificationBusTest {
 protected:
  static constexpr Duration kConfirmationTime = 500ms;

  StoppedBusTest() : NotificationBusTest(kConfirmationTime) {}

  // Connects the centre, and clears all that it has to report.
  void connect() {
    deliver();
    loop_->post([&] { loop_->stop(); });
    loop_->run();
  }
};

TEST_F(StoppedBusTest, DelaysNobodyForLong) {
  connect();
  bus_.program().signal(SIGSTOP);
  const Observation observer = center_->addObserver("a", std::nullopt, note());
  const std::string text(60 * 1024, 'x');
  for (int i = 0; i < 64; ++i) post("a", Dictionary{{"key", text}});
  EXPECT_THAT(sink_.texts(), testing::Contains(testing::HasSubstr("does not read")));
  bus_.program().signal(SIGCONT);
  runUntilGotSomething();
  EXPECT_THAT(got_, testing::Contains("a"));
}

TEST_F(StoppedBusTest, IsWaitedForOnceAndItsReturnIsReported) {
  connect();
  int returns = 0;
  Observation returned = center_->observeReturn([&] {
    ++returns;
    loop_->stop();
  });
  bus_.program().signal(SIGSTOP);
  const Instant start = loop_->now();
  std::vector<Observation> observers;
  for (int i = 0; i < 100; ++i)
    observers.push_back(center_->addObserver("a" + std::to_string(i), std::nullopt, note()));
  EXPECT_LT(loop_->now() - start, 100 * kConfirmationTime);
  bus_.program().signal(SIGCONT);
  runOrFail(*loop_, "the bus's return is not told");
  EXPECT_EQ(returns, 1);
  returned.reset();
  post("a99");
  deliver();
  EXPECT_THAT(got_, testing::ElementsAre("a99"));
}

TEST_F(StoppedBusTest, ACentreWithoutATimeIsConfirmedOnTheLoop) {
  bus_.program().signal(SIGSTOP);
  const auto center = makeBusNotificationCenter(*loop_, bus_.address(), log_, Duration::zero());
  const Observation returned = center->observeReturn([&] { loop_->stop(); });
  const Observation observer = center->addObserver("a", std::nullopt, note());
  EXPECT_TRUE(center->isAwaitingConfirmation());
  bus_.program().signal(SIGCONT);
  runOrFail(*loop_, "the bus's confirmation is not told");
  EXPECT_FALSE(center->isAwaitingConfirmation());
}

TEST_F(NotificationBusTest, AFullBacklogDelaysNobody) {
  bus_.program().signal(SIGSTOP);
  const std::string path = bus_.address().substr(bus_.address().find('/'));
  std::vector<UniqueFd> strangers;
  for (;;) {
    auto stranger = connectToSocket(path, Duration::zero());
    if (!stranger) break;
    strangers.push_back(*std::move(stranger));
  }
  const auto late = makeBusNotificationCenter(*loop_, bus_.address(), log_);
  const Observation observer = late->addObserver("a", std::nullopt, note());
  late->postNotificationName("a", std::nullopt, {}, NSNotificationPosting::kThisSession);
  strangers.clear();
  bus_.program().signal(SIGCONT);
  runUntilGotSomething();  // The post has waited for the connection.
  EXPECT_THAT(sink_.texts(), testing::IsEmpty());
}

}  // namespace
}  // namespace platform
