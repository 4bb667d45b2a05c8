#include "Platform/Linux/RunLoops/AsioRunLoop.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include "Platform/RunLoops/RunLoop_contract.h"

namespace platform {
namespace {

std::unique_ptr<RunLoop> makeLoop() {
  auto loop = AsioRunLoop::create();
  return loop ? std::move(*loop) : nullptr;
}

INSTANTIATE_TEST_SUITE_P(Asio, RunLoopContract, testing::Values(&makeLoop));

#ifndef __SANITIZE_ADDRESS__  // Its check of types needs descriptors itself.
TEST(AsioRunLoopTest, WithoutDescriptorsCreatingFailsAndLeavesNothingBehind) {
  rlimit original{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &original), 0);
  const std::size_t before = openDescriptors();
  int refused = 0;
  for (rlim_t limit = 3;; ++limit) {
    ASSERT_LT(limit, before + 20);
    const rlimit low{limit, original.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const auto loop = AsioRunLoop::create();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &original), 0);
    if (loop) break;
    EXPECT_EQ(loop.error().code, ErrorCode::kExhausted);
    EXPECT_EQ(openDescriptors(), before);
    ++refused;
  }
  EXPECT_GE(refused, 4);  // Two sets of the loop, two descriptors of Asio.
}
#endif

// The time is later than 2020, so it is not the time since the machine's start.
TEST(AsioRunLoopTest, TheWallTimeIsCivilTime) {
  const auto loop = AsioRunLoop::create();
  ASSERT_TRUE(loop);
  EXPECT_GT((*loop)->wallTime(), WallTime(std::chrono::sys_days(std::chrono::year(2020) / 1 / 1)));
}

}  // namespace
}  // namespace platform
