#include "ServiceManager/Workers/EndOfWorkers.h"

#include <latch>

#include <gtest/gtest.h>

namespace {

using platform::LoopThread;

class EndOfWorkers : public testing::Test {
 protected:
  static std::unique_ptr<LoopThread> running() {
    auto thread = *LoopThread::create();
    thread->run();
    return thread;
  }

  const std::unique_ptr<platform::AsioRunLoop> loop_ = *platform::AsioRunLoop::create();
};

TEST_F(EndOfWorkers, IdleThreadsEndAndTheirLastWorkIsDone) {
  const auto first = running();
  const auto second = running();
  bool isDone = false;
  second->loop().post([&] { isDone = true; });
  EXPECT_TRUE(endTogether({first.get(), second.get()}, nullptr, *loop_));
  EXPECT_TRUE(isDone);
}

TEST_F(EndOfWorkers, AHungThreadHoldsUpNobody) {
  const auto hung = running();
  const auto idle = running();
  std::latch release(1);
  hung->loop().post([&] { release.wait(); });
  EXPECT_FALSE(endTogether({hung.get(), idle.get()}, nullptr, *loop_));
  release.count_down();
}

}  // namespace
