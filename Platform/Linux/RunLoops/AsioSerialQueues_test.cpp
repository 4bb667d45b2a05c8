#include "Platform/Linux/RunLoops/AsioSerialQueues.h"

#include <atomic>
#include <future>
#include <latch>
#include <thread>

#include <gtest/gtest.h>
#include <sched.h>

#include "Platform/RunLoops/SerialQueue_contract.h"

namespace platform {
namespace {

template <std::size_t threads>
std::unique_ptr<SerialQueues> makeQueues() {
  return std::make_unique<AsioSerialQueues>(threads);
}

INSTANTIATE_TEST_SUITE_P(OneThread, SerialQueueContract, testing::Values(&makeQueues<1>));
INSTANTIATE_TEST_SUITE_P(FourThreads, SerialQueueContract, testing::Values(&makeQueues<4>));

TEST(AsioSerialQueuesTest, SubmittedBlocksRunOnThreadsOfThePool) {
  AsioSerialQueues queues(1);
  const auto queue = queues.makeQueue("queue");
  std::latch ran(1);
  std::thread::id thread;
  queue->async([&] {
    thread = std::this_thread::get_id();
    ran.count_down();
  });
  ran.wait();
  EXPECT_NE(thread, std::this_thread::get_id());
}

// The scheduling policy of the pool's thread.
int policyOf(AsioSerialQueues::Work work) {
  std::promise<int> policy;
  AsioSerialQueues queues(1, work);
  queues.makeQueue("queue")->async([&] { policy.set_value(::sched_getscheduler(0)); });
  return policy.get_future().get();
}

TEST(AsioSerialQueuesTest, OnlyBackgroundThreadsRunUnderSchedBatch) {
  const int own = ::sched_getscheduler(0);
  EXPECT_EQ(policyOf(AsioSerialQueues::Work::kBackground), own == SCHED_OTHER ? SCHED_BATCH : own);
  EXPECT_EQ(::sched_getscheduler(0), own);
  EXPECT_EQ(policyOf(AsioSerialQueues::Work::kNormal), own);
}

TEST(AsioSerialQueuesTest, AChosenSchedulingPolicyIsKept) {
  std::thread([] {
    const sched_param none{};
    ASSERT_EQ(::sched_setscheduler(0, SCHED_IDLE, &none), 0);
    EXPECT_EQ(policyOf(AsioSerialQueues::Work::kBackground), SCHED_IDLE);
    EXPECT_EQ(::sched_getscheduler(0), SCHED_IDLE);
  }).join();
}

TEST(AsioSerialQueuesTest, QueuesRunSideBySideOnAsManyThreads) {
  constexpr int kThreads = 3;
  AsioSerialQueues queues(kThreads);
  std::latch all(kThreads);
  std::vector<std::shared_ptr<SerialQueue>> made;
  // The queues end only if all blocks run at the same time.
  for (int i = 0; i < kThreads; ++i) {
    made.push_back(queues.makeQueue(std::to_string(i)));
    made.back()->async([&] { all.arrive_and_wait(); });
  }
  all.wait();
}

TEST(AsioSerialQueuesTest, BlocksRunOneAtATimeInEachThreadsOrder) {
  constexpr int kThreads = 4;
  constexpr int kBlocks = 2000;
  AsioSerialQueues queues(3);
  const auto queue = queues.makeQueue("queue");
  std::vector<int> last(kThreads, -1);  // Guarded by the queue alone.
  int ran = 0;
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread] {
        for (int i = 0; i < kBlocks; ++i) {
          const auto block = [&, thread, i] {
            EXPECT_EQ(last[thread], i - 1);
            last[thread] = i;
            ++ran;
          };
          if (i % 7 == 0) {
            queue->sync(block);
          } else {
            queue->async(block);
          }
        }
      });
    }
  }
  queue->sync([&] { EXPECT_EQ(ran, kThreads * kBlocks); });
}

TEST(AsioSerialQueuesTest, SyncWaitsForTheBlocksBeforeIt) {
  AsioSerialQueues queues(1);
  const auto queue = queues.makeQueue("queue");
  std::latch started(1);
  std::latch go(1);
  int ran = 0;
  queue->async([&] {
    started.count_down();
    go.wait();
    ++ran;
  });
  started.wait();
  queue->async([&] { ++ran; });
  std::jthread releases([&] { go.count_down(); });
  queue->sync([&] { EXPECT_EQ(ran, 2); });
}

// All threads of the pool wait for queues that no free thread could run.
TEST(AsioSerialQueuesTest, ThreadsThatAllWaitForOtherQueuesServeThemThemselves) {
  constexpr int kThreads = 2;
  AsioSerialQueues queues(kThreads);
  std::latch all(kThreads);
  std::latch done(kThreads);
  std::vector<std::shared_ptr<SerialQueue>> made;
  for (int i = 0; i < kThreads; ++i) {
    const auto& queue = made.emplace_back(queues.makeQueue("queue"));
    queue->async([&] {
      all.arrive_and_wait();
      const auto other = queues.makeQueue("other");
      bool ran = false;
      for (int block = 0; block < 200; ++block) other->async([&, block] { ran = block == 199; });
      other->sync([&] { EXPECT_TRUE(ran); });
      done.count_down();
    });
  }
  done.wait();
}

TEST(AsioSerialQueuesTest, AnEndlessQueueLeavesTurnsToOthers) {
  std::atomic<bool> otherRan = false;
  std::shared_ptr<SerialQueue> endless;
  std::function<void()> again = [&] {
    if (!otherRan) endless->async([&] { again(); });
  };
  AsioSerialQueues queues(1);
  endless = queues.makeQueue("endless");
  const auto other = queues.makeQueue("other");
  endless->async([&] { again(); });
  other->async([&] { otherRan = true; });
  other->sync([] {});
  EXPECT_TRUE(otherRan);
}

TEST(AsioSerialQueuesTest, NoBlockIsLostWhenThePoolIsDestroyedDuringSubmits) {
  constexpr int kThreads = 3;
  constexpr int kBlocks = 3000;
  std::atomic<int> ran = 0;
  std::shared_ptr<SerialQueue> queue;
  {
    std::vector<std::jthread> threads;
    std::latch underWay(kThreads);
    AsioSerialQueues queues(2);
    queue = queues.makeQueue("queue");
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&] {
        for (int i = 0; i < kBlocks; ++i) {
          if (i == 10) underWay.count_down();
          queue->async([&] { ++ran; });
        }
      });
    }
    underWay.wait();
  }
  queue->sync([] {});
  EXPECT_EQ(ran, kThreads * kBlocks);
}

// The last block drops the queue on the pool's thread while its creator drops it here.
TEST(AsioSerialQueuesTest, AQueueEndsOnWhicheverThreadIsLast) {
  std::atomic<int> finalised = 0;
  constexpr int kQueues = 1000;
  {
    AsioSerialQueues queues(2);
    for (int i = 0; i < kQueues; ++i) {
      auto queue = queues.makeQueue("queue");
      queue->setContext(
          {&finalised, [](void* context) { ++*static_cast<std::atomic<int>*>(context); }});
      queue->async([] {});
    }
  }
  EXPECT_EQ(finalised, kQueues);
}

}  // namespace
}  // namespace platform
