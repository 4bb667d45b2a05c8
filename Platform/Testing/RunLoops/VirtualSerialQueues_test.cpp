#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"

#include <gtest/gtest.h>

#include "Platform/RunLoops/SerialQueue_contract.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

// Has a loop of its own, for tests of the queues alone.
class QueuesWithLoop final : public SerialQueues {
 public:
  std::shared_ptr<SerialQueue> makeQueue(std::string label) override {
    return queues_.makeQueue(std::move(label));
  }

 private:
  VirtualRunLoop loop_;
  VirtualSerialQueues queues_{loop_};
};

std::unique_ptr<SerialQueues> makeQueues() { return std::make_unique<QueuesWithLoop>(); }

INSTANTIATE_TEST_SUITE_P(Virtual, SerialQueueContract, testing::Values(&makeQueues));

class VirtualSerialQueuesTest : public testing::Test {
 protected:
  std::vector<std::string> log_;  // Blocks that are left over still write to it.
  VirtualRunLoop loop_;
  VirtualSerialQueues queues_{loop_};
  std::shared_ptr<SerialQueue> queue_ = queues_.makeQueue("queue");
};

TEST_F(VirtualSerialQueuesTest, BlocksRunWhenTheLoopRuns) {
  queue_->async([&] { log_.push_back("block"); });
  EXPECT_TRUE(log_.empty());
  loop_.runReady();
  EXPECT_EQ(log_.size(), 1);
}

TEST_F(VirtualSerialQueuesTest, BlocksRunBeforeTheLoopsNextCallbackButNotInsideOne) {
  loop_.post([&] {
    queue_->async([&] { log_.push_back("block"); });
    log_.push_back("first");
  });
  loop_.post([&] { log_.push_back("second"); });
  loop_.runReady();
  EXPECT_EQ(log_, (std::vector<std::string>{"first", "block", "second"}));
}

TEST_F(VirtualSerialQueuesTest, BlocksRunWhileTheLoopsThreadSleeps) {
  queue_->async([&] { log_.push_back("block"); });
  loop_.sleepFor(0s);
  EXPECT_EQ(log_.size(), 1);
}

TEST_F(VirtualSerialQueuesTest, RunPendingRunsAllQueuesInTheOrderOfSubmission) {
  const auto other = queues_.makeQueue("other");
  queue_->async([&] { log_.push_back("1"); });
  other->async([&] {
    queue_->async([&] { log_.push_back("4"); });
    log_.push_back("2");
  });
  queue_->async([&] { log_.push_back("3"); });
  queues_.runPending();
  EXPECT_EQ(log_, (std::vector<std::string>{"1", "2", "3", "4"}));
  loop_.runReady();
  EXPECT_EQ(log_.size(), 4);
}

TEST_F(VirtualSerialQueuesTest, ATurnDuringABlockIsPostponed) {
  queue_->async([&] {
    queue_->async([&] { log_.push_back("second"); });
    loop_.sleepFor(1s);
    log_.push_back("first");
  });
  loop_.runReady();
  EXPECT_EQ(log_, (std::vector<std::string>{"first", "second"}));
}

TEST(VirtualSerialQueuesLifetimeTest, AQueueMayOutliveItsPoolAndTheLoop) {
  auto loop = std::make_unique<VirtualRunLoop>();
  auto queues = std::make_unique<VirtualSerialQueues>(*loop);
  const auto queue = queues->makeQueue("queue");
  int ran = 0;
  queue->async([&] { ++ran; });
  queues.reset();
  EXPECT_EQ(ran, 1);
  loop.reset();
  queue->async([&] { ++ran; });
  EXPECT_EQ(ran, 2);
}

}  // namespace
}  // namespace platform
