#include "Platform/Testing/Processes/FakeExitWatcher.h"

#include <gtest/gtest.h>

#include "Platform/Processes/ExitWatcher_contract.h"

namespace platform {
namespace {

class FakeExitProcesses final : public ExitWatcherHarness {
 public:
  RunLoop& loop() override { return loop_; }
  ExitWatcher& watcher() override { return watcher_; }

  ProcessId startChild() override {
    watcher_.startProcess(++last_, FakeExitWatcher::Parent::kProgram);
    return last_;
  }
  ProcessId startForeignProcess() override {
    watcher_.startProcess(++last_);
    return last_;
  }
  ProcessId startThread() override {
    watcher_.startThread(++last_);
    return last_;
  }
  void end(ProcessId process, ExitStatus status) override { watcher_.endProcess(process, status); }
  void awaitEnd(ProcessId) override {}
  void reap(ProcessId child) override { watcher_.reap(child); }
  bool isReaped(ProcessId child) override { return !watcher_.isKnown(child); }
  void withoutDescriptors(const std::function<void()>& action) override {
    watcher_.setWatchLimit(0);
    action();
    watcher_.setWatchLimit(SIZE_MAX);
  }

 private:
  VirtualRunLoop loop_;
  FakeExitWatcher watcher_{loop_};
  ProcessId last_ = 1000;
};

std::unique_ptr<ExitWatcherHarness> makeFakeExitHarness() {
  return std::make_unique<FakeExitProcesses>();
}

INSTANTIATE_TEST_SUITE_P(Fake, ExitWatcherContract, testing::Values(&makeFakeExitHarness));

class FakeExitWatcherTest : public testing::Test {
 protected:
  std::unique_ptr<RunLoopHandle> watch(ProcessId process) {
    auto handle = watcher_.watchExit(process, [&](auto status) { reported_.push_back(status); });
    return handle ? std::move(*handle) : nullptr;
  }

  VirtualRunLoop loop_;
  FakeExitWatcher watcher_{loop_};
  std::vector<std::optional<ExitStatus>> reported_;
};

TEST_F(FakeExitWatcherTest, AnEndIsReportedWhenTheLoopRuns) {
  watcher_.startProcess(100);
  const auto handle = watch(100);
  watcher_.endProcess(100);
  EXPECT_TRUE(reported_.empty());
  loop_.runReady();
  EXPECT_EQ(reported_.size(), 1);
}

TEST_F(FakeExitWatcherTest, ANumberMayBeUsedAgainWhileOldWatchesLive) {
  watcher_.startProcess(100, FakeExitWatcher::Parent::kProgram);
  const auto old = watch(100);
  watcher_.endProcess(100, {ExitStatus::Kind::kExited, 1});
  watcher_.reap(100);
  watcher_.startProcess(100, FakeExitWatcher::Parent::kProgram);
  const auto fresh = watch(100);
  loop_.runReady();
  EXPECT_EQ(reported_, (std::vector<std::optional<ExitStatus>>{std::nullopt}));
  watcher_.endProcess(100, {ExitStatus::Kind::kExited, 2});
  loop_.runReady();
  ASSERT_EQ(reported_.size(), 2);
  EXPECT_EQ(reported_[1], (ExitStatus{ExitStatus::Kind::kExited, 2}));
}

TEST_F(FakeExitWatcherTest, WatchesAreCountedAndLimited) {
  watcher_.startProcess(100);
  watcher_.startProcess(101);
  watcher_.setWatchLimit(1);
  auto first = watch(100);
  EXPECT_EQ(watcher_.watchCount(), 1);
  const auto refused = watcher_.watchExit(101, [](auto) { FAIL(); });
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
  first.reset();
  EXPECT_EQ(watcher_.watchCount(), 0);
  EXPECT_NE(watch(101), nullptr);
}

TEST_F(FakeExitWatcherTest, AProcessMayEndWhileTheLoopsThreadSleeps) {
  using namespace std::chrono_literals;
  watcher_.startProcess(100);
  const auto handle = watch(100);
  loop_.scheduleOutsideEvent(1s, [&] { watcher_.endProcess(100); });
  loop_.sleepFor(2s);
  EXPECT_TRUE(reported_.empty());
  EXPECT_EQ(watcher_.watchCount(), 0);
  loop_.runReady();
  EXPECT_EQ(reported_.size(), 1);
}

}  // namespace
}  // namespace platform
