#include "ServiceManager/Workers/EndOfWorkers.h"

#include <cerrno>
#include <latch>
#include <optional>
#include <utility>

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/InterceptedSystemCall.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

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

// The XPC is left behind, so it outlives the test.
TEST_F(EndOfWorkers, AnXPCWithoutAThreadToEndOnHasNotEnded) {
  const auto idle = running();
  const platform::TemporaryFolder folder;
  static platform::FakeLogSink sink;
  static platform::SystemLog log(sink, "test");
  auto xpc = std::move(*platform::LinuxXPC::make(
      log, platform::ListenerPlaces(platform::defaultPlatformConfiguration(folder.path())),
      std::nullopt));
  // LeakSanitizer finds nothing else that refers to it.
  [[maybe_unused]] static const platform::LinuxXPC* const leftBehind = xpc.get();
  bool haveEnded = true;
  platform::withInterceptedSystemCall(
      SYS_clone3, [](const platform::InterceptedCall&) { return EAGAIN; },
      [&] { haveEnded = endTogether({idle.get()}, std::move(xpc), *loop_); });
  EXPECT_FALSE(haveEnded);
}

}  // namespace
