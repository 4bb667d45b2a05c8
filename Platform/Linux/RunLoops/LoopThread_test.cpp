#include "Platform/Linux/RunLoops/LoopThread.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Platform/Testing/Machine/InterceptedSystemCall.h"

namespace platform {
namespace {

TEST(LoopThreadTest, CallbacksRunOnAThreadOfItsOwn) {
  const auto thread = LoopThread::create();
  ASSERT_TRUE(thread);
  std::promise<std::thread::id> ranOn;
  (*thread)->loop().post([&] { ranOn.set_value(std::this_thread::get_id()); });
  (*thread)->run();
  EXPECT_NE(ranOn.get_future().get(), std::this_thread::get_id());
}

TEST(LoopThreadTest, ItsEndWaitsForTheCallbackThatRuns) {
  auto thread = LoopThread::create();
  ASSERT_TRUE(thread);
  std::promise<void> begun;
  std::promise<void> mayEnd;
  bool hasEnded = false;
  (*thread)->loop().post([&, mayEndNow = mayEnd.get_future()]() mutable {
    begun.set_value();
    mayEndNow.wait();
    hasEnded = true;
  });
  (*thread)->run();
  begun.get_future().wait();
  std::thread other([&] { mayEnd.set_value(); });
  thread->reset();
  EXPECT_TRUE(hasEnded);
  other.join();
}

TEST(LoopThreadTest, PostsComeBeforeItsEnd) {
  const auto thread = LoopThread::create();
  ASSERT_TRUE(thread);
  std::vector<std::string> ran;
  (*thread)->run([&] { ran.emplace_back("end"); });
  (*thread)->loop().post([&] { ran.emplace_back("post"); });
  EXPECT_TRUE((*thread)->stopWithin(std::chrono::minutes(1)));
  EXPECT_EQ(ran, (std::vector<std::string>{"post", "end"}));
}

TEST(LoopThreadTest, OneThatIsBusyIsNotWaitedFor) {
  auto thread = LoopThread::create();
  ASSERT_TRUE(thread);
  std::promise<void> mayEnd;
  (*thread)->loop().post([mayEndNow = mayEnd.get_future()]() mutable { mayEndNow.wait(); });
  (*thread)->run();
  EXPECT_FALSE((*thread)->stopWithin(std::chrono::milliseconds(1)));
  mayEnd.set_value();
}

TEST(LoopThreadTest, SeveralEndAtTheSameTime) {
  auto first = LoopThread::create();
  auto second = LoopThread::create();
  ASSERT_TRUE(first && second);
  std::promise<void> secondHasEnded;
  (*first)->loop().post([ended = secondHasEnded.get_future()]() mutable { ended.wait(); });
  (*first)->run();
  (*second)->run([&] { secondHasEnded.set_value(); });
  for (LoopThread* thread : {first->get(), second->get()}) thread->askToStop();
  EXPECT_TRUE((*first)->stopWithin(std::chrono::minutes(1)));
  EXPECT_TRUE((*second)->stopWithin(std::chrono::minutes(1)));
}

TEST(LoopThreadTest, WithoutAThreadItsCreationFails) {
  ErrorCode code{};
  withInterceptedSystemCall(
      SYS_clone3, [](const InterceptedCall&) { return EAGAIN; },
      [&] {
        if (const auto thread = LoopThread::create(); !thread) code = thread.error().code;
      });
  EXPECT_EQ(code, ErrorCode::kExhausted);
}

TEST(LoopThreadTest, OneThatNeverRanEndsToo) { EXPECT_TRUE(LoopThread::create()); }

}  // namespace
}  // namespace platform
