#include "Tools/servicemanagerctl/WithinTime.h"

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Platform/RunLoops/MonotonicTime.h"
#include "Platform/Testing/Machine/FailingSystemCall.h"

namespace {

using platform::monotonicTime;

constexpr platform::Duration kLong = std::chrono::minutes(1);

TEST(PendingResult, TwoPiecesOfWorkRunAtTheSameTime) {
  const auto first = std::make_shared<std::promise<void>>();
  const auto second = std::make_shared<std::promise<void>>();
  // Each ends only when the other has begun.
  PendingResult<int> one([first, second] {
    first->set_value();
    second->get_future().wait();
    return 1;
  });
  PendingResult<int> two([first, second] {
    second->set_value();
    first->get_future().wait();
    return 2;
  });
  EXPECT_EQ(one.by(monotonicTime() + kLong), 1);
  EXPECT_EQ(two.by(monotonicTime() + kLong), 2);
}

TEST(PendingResult, WorkThatHangsHasNoResult) {
  const auto end = std::make_shared<std::promise<void>>();
  PendingResult<int> hung([end] {
    end->get_future().wait();
    return 1;
  });
  EXPECT_EQ(hung.by(monotonicTime()), std::nullopt);
  end->set_value();  // The thread ends.
  EXPECT_TRUE(hung.hasBegun());
}

TEST(PendingResult, WithoutAThreadTheWorkHasNotBegun) {
  platform::withFailingSystemCall(SYS_clone3, EAGAIN, [] {
    PendingResult<int> pending([] { return 1; });
    EXPECT_FALSE(pending.hasBegun());
    EXPECT_EQ(pending.by(monotonicTime() + kLong), std::nullopt);
  });
}

}  // namespace
