#include "JobHost/Replacement.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Testing/Machine/FailingSystemCall.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;

class ReplacementTest : public testing::Test {
 protected:
  ReplacementTest() { ::pthread_sigmask(SIG_BLOCK, nullptr, &before_); }
  ~ReplacementTest() override { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_{};
};

TEST_F(ReplacementTest, EachHangUpIsARequest) {
  const ReplacementRequests requests;
  const auto loop = std::move(*platform::AsioRunLoop::create());
  int count = 0;
  const auto watch = requests.watch(*loop, [&] {
    ++count;
    loop->stop();
  });
  ASSERT_TRUE(watch) << platform::describe(watch.error());
  const auto deadline =
      loop->startTimer(60s, platform::RunLoop::Repeat::kOnce, [&] { loop->stop(); });
  for (int expected = 1; expected <= 3; ++expected) {
    ASSERT_EQ(::raise(SIGHUP), 0);
    loop->run();
    ASSERT_EQ(count, expected);
  }
}

// Executes this program again, which then runs this test alone.
TEST_F(ReplacementTest, TheNextProgramGetsTheLimitOfDescriptors) {
  constexpr char kVariable[] = "VANTOR_TEST_LIMIT";
  if (const char* const expected = ::getenv(kVariable)) {
    ::_exit(std::to_string(platform::softDescriptorLimit()) == expected ? 0 : 1);
  }
  const pid_t child = ::fork();
  if (child == 0) {
    const std::uint64_t limit = platform::softDescriptorLimit() - 1;
    ::setenv(kVariable, std::to_string(limit).c_str(), 1);
    ::setenv("GTEST_FILTER", "ReplacementTest.TheNextProgramGetsTheLimitOfDescriptors", 1);
    ::unsetenv("GTEST_TOTAL_SHARDS");
    static_cast<void>(replaceProgram(limit));
    ::_exit(2);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(ReplacementTest, AHostThatGoesOnKeepsItsLimitOfDescriptors) {
  const std::uint64_t before = platform::softDescriptorLimit();
  platform::withFailingSystemCall(SYS_execve, EACCES,
                                  [&] { EXPECT_EQ(replaceProgram(before - 1).osError, EACCES); });
  EXPECT_EQ(platform::softDescriptorLimit(), before);
}

}  // namespace
}  // namespace jobhost
