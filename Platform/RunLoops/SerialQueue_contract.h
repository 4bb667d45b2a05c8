#pragma once

// The contract of all serial queues. A test program instantiates it:
//   INSTANTIATE_TEST_SUITE_P(Virtual, SerialQueueContract, testing::Values(&makeVirtualQueues));

#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/RunLoops/SerialQueue.h"

namespace platform {

class SerialQueueContract : public testing::TestWithParam<std::unique_ptr<SerialQueues> (*)()> {
 protected:
  static QueueContext countedContext(int& finalised) {
    return {&finalised, [](void* context) { ++*static_cast<int*>(context); }};
  }

  std::unique_ptr<SerialQueues> queues_ = GetParam()();
};

TEST_P(SerialQueueContract, AQueueHasALabelAndNoContextAtFirst) {
  const auto queue = queues_->makeQueue("com.example.queue");
  EXPECT_EQ(queue->label(), "com.example.queue");
  EXPECT_EQ(queue->context(), nullptr);
  EXPECT_EQ(queues_->makeQueue("")->label(), "");
}

TEST_P(SerialQueueContract, BlocksRunInTheOrderOfSubmission) {
  const auto queue = queues_->makeQueue("queue");
  std::vector<int> ran;
  for (int i = 0; i < 1000; ++i) queue->async([&ran, i] { ran.push_back(i); });
  queue->sync([&ran] { ran.push_back(1000); });
  ASSERT_EQ(ran.size(), 1001);
  for (int i = 0; i <= 1000; ++i) EXPECT_EQ(ran[i], i);
}

TEST_P(SerialQueueContract, SyncOnAnIdleQueueRunsOnTheCallingThread) {
  const auto queue = queues_->makeQueue("queue");
  for (int i = 0; i < 100; ++i) {
    std::thread::id thread;
    queue->sync([&] { thread = std::this_thread::get_id(); });
    EXPECT_EQ(thread, std::this_thread::get_id());
  }
}

TEST_P(SerialQueueContract, TrySyncOnAnIdleQueueRunsOnTheCallingThread) {
  const auto queue = queues_->makeQueue("queue");
  const auto held = std::make_shared<int>();  // Owned by the block and this test.
  std::thread::id thread;
  SerialQueue::Block block = [&thread, held] { thread = std::this_thread::get_id(); };
  EXPECT_TRUE(queue->trySync(block));
  EXPECT_EQ(thread, std::this_thread::get_id());
  EXPECT_EQ(held.use_count(), 1);
}

TEST_P(SerialQueueContract, TrySyncOnABusyQueueLeavesTheBlock) {
  const auto queue = queues_->makeQueue("queue");
  const auto other = queues_->makeQueue("other");
  int ran = 0;
  SerialQueue::Block block = [&ran] { ++ran; };
  queue->sync([&] {
    EXPECT_FALSE(queue->trySync(block));
    other->sync([&] { EXPECT_FALSE(queue->trySync(block)); });
  });
  EXPECT_EQ(ran, 0);
  EXPECT_TRUE(queue->trySync(block));
  EXPECT_EQ(ran, 1);
}

TEST_P(SerialQueueContract, TrySyncDoesNotOvertakeWaitingBlocks) {
  const auto queue = queues_->makeQueue("queue");
  std::vector<int> ran;
  for (int i = 0; i < 1000; ++i) {
    queue->async([&ran, i] { ran.push_back(2 * i); });
    SerialQueue::Block block = [&ran, i] { ran.push_back(2 * i + 1); };
    if (!queue->trySync(block)) queue->async(std::move(block));
  }
  queue->sync([] {});
  ASSERT_EQ(ran.size(), 2000);
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(ran[i], i);
}

TEST_P(SerialQueueContract, ABlockSubmittedDuringTrySyncRunsAfterIt) {
  const auto queue = queues_->makeQueue("queue");
  std::vector<int> ran;
  SerialQueue::Block block = [&] {
    queue->async([&] { ran.push_back(1); });
    ran.push_back(0);
  };
  EXPECT_TRUE(queue->trySync(block));
  queues_.reset();
  EXPECT_EQ(ran, (std::vector{0, 1}));
}

TEST_P(SerialQueueContract, ABlockMaySubmitToItsOwnQueue) {
  const auto queue = queues_->makeQueue("queue");
  std::vector<int> ran;
  queue->sync([&] {
    queue->async([&] {
      queue->async([&] { ran.push_back(2); });
      ran.push_back(1);
    });
    ran.push_back(0);
  });
  queues_.reset();
  EXPECT_EQ(ran, (std::vector{0, 1, 2}));
}

TEST_P(SerialQueueContract, ABlockMaySyncToAnotherQueue) {
  const auto queue = queues_->makeQueue("queue");
  const auto other = queues_->makeQueue("other");
  std::vector<int> ran;
  other->async([&] { ran.push_back(0); });
  other->sync([] {});
  queue->async([&] {
    other->async([&] { ran.push_back(1); });
    other->sync([&] { ran.push_back(2); });
    ran.push_back(3);
  });
  queue->sync([&] { ran.push_back(4); });
  EXPECT_EQ(ran, (std::vector{0, 1, 2, 3, 4}));
}

TEST_P(SerialQueueContract, ABlockIsReleasedWhenItHasRun) {
  const auto queue = queues_->makeQueue("queue");
  const auto held = std::make_shared<int>();  // Owned by the blocks and this test.
  queue->async([held] {});
  queue->async([&] { EXPECT_EQ(held.use_count(), 1); });
  queue->sync([] {});
  queue->sync([held] {});
  EXPECT_EQ(held.use_count(), 1);
}

TEST_P(SerialQueueContract, AReleasedBlocksObjectsMayUseTheQueue) {
  const auto queue = queues_->makeQueue("queue");
  int ran = 0;
  const auto holdSomething = [&] {
    // Only the block owns it; it is shared for its deleter.
    return std::shared_ptr<void>(nullptr, [&](void*) { queue->async([&] { ++ran; }); });
  };
  queue->async([held = holdSomething()] {});
  queue->sync([] {});
  queue->sync([held = holdSomething()] {});
  queues_.reset();
  EXPECT_EQ(ran, 2);
}

TEST_P(SerialQueueContract, TheContextIsFinalisedOnceWhenTheQueueEnds) {
  int finalised = 0;
  auto queue = queues_->makeQueue("queue");
  queue->setContext(countedContext(finalised));
  EXPECT_EQ(queue->context(), &finalised);
  auto holder = queue;
  queue.reset();
  EXPECT_EQ(finalised, 0);
  holder.reset();
  EXPECT_EQ(finalised, 1);
}

TEST_P(SerialQueueContract, ANullContextHasNoFinaliser) {
  auto queue = queues_->makeQueue("queue");
  queue->setContext({nullptr, [](void*) { ADD_FAILURE(); }});
  queue.reset();
}

TEST_P(SerialQueueContract, ADroppedQueueDrainsBeforeItsContextIsFinalised) {
  int finalised = 0;
  std::vector<int> finalisedAt;
  auto queue = queues_->makeQueue("queue");
  queue->setContext(countedContext(finalised));
  for (int i = 0; i < 100; ++i) {
    // The raw pointer is no holder: only the pending blocks keep the queue.
    queue->async([&, raw = queue.get()] {
      EXPECT_EQ(raw->context(), &finalised);
      finalisedAt.push_back(finalised);
    });
  }
  queue.reset();
  queues_.reset();
  EXPECT_EQ(finalisedAt, std::vector<int>(100, 0));
  EXPECT_EQ(finalised, 1);
}

TEST_P(SerialQueueContract, ABlockMayBeTheLastHolder) {
  int finalised = 0;
  auto queue = queues_->makeQueue("queue");
  queue->setContext(countedContext(finalised));
  queue->async([&finalised, held = queue] { EXPECT_EQ(finalised, 0); });
  queue->sync([&] {
    queue.reset();
    EXPECT_EQ(finalised, 0);
  });
  queues_.reset();
  EXPECT_EQ(finalised, 1);
}

TEST_P(SerialQueueContract, EveryBlockHasRunWhenThePoolIsDestroyed) {
  const auto queue = queues_->makeQueue("queue");
  const auto other = queues_->makeQueue("other");
  int ran = 0;
  for (int i = 0; i < 100; ++i) {
    queue->async([&] { other->async([&] { queue->async([&] { ++ran; }); }); });
  }
  queues_.reset();
  EXPECT_EQ(ran, 100);
}

TEST_P(SerialQueueContract, WithoutItsPoolAQueueRunsOnTheCallingThread) {
  int finalised = 0;
  auto queue = queues_->makeQueue("queue");
  const auto other = queues_->makeQueue("other");
  queue->setContext(countedContext(finalised));
  queues_.reset();
  std::vector<int> ran;
  queue->async([&] {
    queue->async([&] { ran.push_back(2); });
    other->async([&] { ran.push_back(0); });
    other->sync([&] { ran.push_back(1); });
  });
  queue->sync([&] {
    queue->async([&] { ran.push_back(4); });
    ran.push_back(3);
  });
  EXPECT_EQ(ran, (std::vector{0, 1, 2, 3, 4}));
  queue.reset();
  EXPECT_EQ(finalised, 1);
}

// It would wait for itself, so it aborts the program at once.
TEST_P(SerialQueueContract, SyncFromABlockOfTheSameQueueAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto queue = queues_->makeQueue("queue");
  EXPECT_DEATH(queue->sync([&] { queue->sync([] {}); }), "");
  EXPECT_DEATH(
      {
        queue->async([&] { queue->sync([] {}); });
        queue->sync([] {});
      },
      "");
}

}  // namespace platform
