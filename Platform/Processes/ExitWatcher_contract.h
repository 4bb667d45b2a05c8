#pragma once

// The contract of every exit watcher. A test program derives an ExitWatcherHarness, which starts
// and ends processes, and instantiates:
//   INSTANTIATE_TEST_SUITE_P(Fake, ExitWatcherContract, testing::Values(&makeFakeHarness));

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Testing/Machine/TestStream.h"

namespace platform {

class ExitWatcherHarness {
 public:
  virtual ~ExitWatcherHarness() = default;

  virtual RunLoop& loop() = 0;
  virtual ExitWatcher& watcher() = 0;

  virtual ProcessId startChild() = 0;
  virtual ProcessId startForeignProcess() = 0;
  // The number of a thread that is not the first of its process.
  virtual ProcessId startThread() = 0;

  // Makes a process end; does not wait for its end.
  virtual void end(ProcessId process, ExitStatus status) = 0;
  // Blocks until the process has ended; does not reap it.
  virtual void awaitEnd(ProcessId process) = 0;
  // Reaps a child that has ended, without the watcher.
  virtual void reap(ProcessId child) = 0;
  virtual bool isReaped(ProcessId child) = 0;

  // Runs `action` while the system has no descriptor left.
  virtual void withoutDescriptors(const std::function<void()>& action) = 0;
};

class ExitWatcherContract
    : public testing::TestWithParam<std::unique_ptr<ExitWatcherHarness> (*)()> {
 protected:
  using Kind = ExitStatus::Kind;
  static constexpr ExitStatus kKilled{Kind::kSignalled, 9};

  struct Report {
    ProcessId process;
    std::optional<ExitStatus> status;

    bool operator==(const Report&) const = default;
  };

  std::unique_ptr<RunLoopHandle> watch(ProcessId process, RunLoop::Callback then = [] {}) {
    auto handle = harness_->watcher().watchExit(
        process, [this, process, then = std::move(then)](std::optional<ExitStatus> status) mutable {
          reports_.push_back({process, status});
          then();
        });
    EXPECT_TRUE(handle.has_value());
    return handle ? std::move(*handle) : nullptr;
  }

  void endAndAwait(ProcessId process, ExitStatus status = kKilled) {
    harness_->end(process, status);
    harness_->awaitEnd(process);
  }

  // Runs the loop until there are `count` reports, and then all that is ready.
  void runToReports(std::size_t count) {
    using namespace std::chrono_literals;
    RunLoop& loop = harness_->loop();
    const auto look = loop.startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
      if (reports_.size() >= count) loop.stop();
    });
    const auto deadline = loop.startTimer(60s, RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << "only " << reports_.size() << " of " << count << " reports";
      loop.stop();
    });
    loop.run();
    EXPECT_EQ(reports_.size(), count);
  }

  std::vector<Report> reports_;
  std::unique_ptr<ExitWatcherHarness> harness_ = GetParam()();
};

TEST_P(ExitWatcherContract, AChildsStatusIsReported) {
  for (const ExitStatus status :
       {ExitStatus{Kind::kExited, 0}, ExitStatus{Kind::kExited, 1}, ExitStatus{Kind::kExited, 255},
        ExitStatus{Kind::kSignalled, 9}, ExitStatus{Kind::kSignalled, 15}}) {
    const ProcessId child = harness_->startChild();
    const auto handle = watch(child);
    harness_->end(child, status);
    runToReports(1);
    EXPECT_EQ(reports_, (std::vector<Report>{{child, status}}));
    EXPECT_TRUE(harness_->isReaped(child));
    reports_.clear();
  }
}

// A handle may be kept long after its process, but must not keep the objects that the callback
// owns.
TEST_P(ExitWatcherContract, TheCallbackIsReleasedWhenItHasRun) {
  const ProcessId ended = harness_->startChild();
  endAndAwait(ended);
  harness_->reap(ended);
  for (const ProcessId process : {harness_->startChild(), ended}) {
    const auto held = std::make_shared<int>();
    const auto handle = watch(process, [held] {});
    if (process != ended) harness_->end(process, kKilled);
    EXPECT_EQ(held.use_count(), 2);
    runToReports(1);
    EXPECT_EQ(held.use_count(), 1);
    reports_.clear();
  }
}

TEST_P(ExitWatcherContract, TheStatusOfAForeignProcessIsUnknown) {
  const ProcessId process = harness_->startForeignProcess();
  const auto handle = watch(process);
  harness_->end(process, {Kind::kExited, 3});
  runToReports(1);
  EXPECT_EQ(reports_, (std::vector<Report>{{process, std::nullopt}}));
}

TEST_P(ExitWatcherContract, ALiveProcessIsNotReported) {
  const auto child = watch(harness_->startChild());
  const auto foreign = watch(harness_->startForeignProcess());
  runToReports(0);
}

TEST_P(ExitWatcherContract, AnEndedChildIsReportedAndReapedAfterTheCall) {
  const ProcessId child = harness_->startChild();
  endAndAwait(child, {Kind::kExited, 7});
  const auto handle = watch(child);
  EXPECT_TRUE(reports_.empty());
  runToReports(1);
  EXPECT_EQ(reports_, (std::vector<Report>{{child, ExitStatus{Kind::kExited, 7}}}));
  EXPECT_TRUE(harness_->isReaped(child));
}

TEST_P(ExitWatcherContract, AnEndedProcessIsReportedAfterTheCall) {
  const ProcessId child = harness_->startChild();
  endAndAwait(child);
  harness_->reap(child);
  const ProcessId foreign = harness_->startForeignProcess();
  endAndAwait(foreign);
  const auto first = watch(child);
  const auto second = watch(foreign);
  EXPECT_TRUE(reports_.empty());
  runToReports(2);
  EXPECT_EQ(reports_[0].status, std::nullopt);
  EXPECT_EQ(reports_[1].status, std::nullopt);
}

TEST_P(ExitWatcherContract, AStatusThatSomebodyElseReapedIsUnknown) {
  const ProcessId child = harness_->startChild();
  const auto handle = watch(child);
  endAndAwait(child);
  harness_->reap(child);
  runToReports(1);
  EXPECT_EQ(reports_, (std::vector<Report>{{child, std::nullopt}}));
}

TEST_P(ExitWatcherContract, AProcessThatEndsDuringTheCallIsReportedOnce) {
  for (int i = 0; i < 100; ++i) {
    const ProcessId child = harness_->startChild();
    harness_->end(child, kKilled);
    const auto handle = watch(child);
    runToReports(1);
    EXPECT_EQ(reports_[0].status, kKilled);
    reports_.clear();
  }
}

TEST_P(ExitWatcherContract, EveryWatchIsCalledAndOneOfThemGetsTheStatus) {
  const ProcessId child = harness_->startChild();
  const auto first = watch(child);
  const auto second = watch(child);
  const auto third = watch(child);
  harness_->end(child, kKilled);
  runToReports(3);
  EXPECT_EQ(std::ranges::count(reports_, Report{child, kKilled}), 1);
  EXPECT_EQ(std::ranges::count(reports_, Report{child, std::nullopt}), 2);
}

TEST_P(ExitWatcherContract, ADestroyedWatchIsNotCalled) {
  const ProcessId child = harness_->startChild();
  const ProcessId gone = harness_->startChild();
  endAndAwait(gone);
  harness_->reap(gone);
  auto before = watch(child);
  before.reset();
  endAndAwait(child);
  auto after = watch(child);
  after.reset();
  auto afterReaping = watch(gone);
  afterReaping.reset();
  runToReports(0);
  EXPECT_FALSE(harness_->isReaped(child));
}

TEST_P(ExitWatcherContract, AWatchDestroyedBeforeItsTurnIsNotCalled) {
  const ProcessId child = harness_->startChild();
  auto handle = watch(child);
  harness_->loop().post(
      [&] {
        endAndAwait(child);
        handle.reset();
      },
      Urgency::kProcessExit);
  runToReports(0);
}

TEST_P(ExitWatcherContract, ACallbackMayDestroyItsWatchAndOthers) {
  const ProcessId children[] = {harness_->startChild(), harness_->startChild()};
  std::unique_ptr<RunLoopHandle> handles[2];
  for (const int i : {0, 1}) {
    handles[i] = watch(children[i], [&] {
      handles[0].reset();
      handles[1].reset();
    });
  }
  const ProcessId gone = harness_->startChild();
  endAndAwait(gone);
  harness_->reap(gone);
  std::unique_ptr<RunLoopHandle> goneHandle;
  goneHandle = watch(gone, [&] { goneHandle.reset(); });
  for (const ProcessId child : children) endAndAwait(child);
  runToReports(2);
}

TEST_P(ExitWatcherContract, ACallbackMayWatchTheNextProcess) {
  std::vector<std::unique_ptr<RunLoopHandle>> handles;
  std::function<void()> next = [&] {
    if (reports_.size() == 5) return;
    const ProcessId child = harness_->startChild();
    handles.push_back(watch(child, [&] { next(); }));
    harness_->end(child, kKilled);
  };
  next();
  runToReports(5);
}

TEST_P(ExitWatcherContract, AnExitIsReportedBeforeAnythingLessUrgent) {
  const ProcessId child = harness_->startChild();
  const ProcessId gone = harness_->startChild();
  endAndAwait(gone);
  harness_->reap(gone);
  const auto handle = watch(child);
  TestStream dying;
  dying.closePeer();
  std::vector<std::size_t> reportsAt;
  const auto look = [&] { reportsAt.push_back(reports_.size()); };
  RunLoop& loop = harness_->loop();
  const auto timer = loop.startTimer(Duration::zero(), RunLoop::Repeat::kOnce, look);
  loop.post(look);
  loop.post(look, Urgency::kConnectionDeath);
  const auto death = loop.watchReadable(dying.descriptor(), Urgency::kConnectionDeath, look);
  ASSERT_TRUE(death);
  endAndAwait(child);
  const auto goneHandle = watch(gone);
  runToReports(2);
  EXPECT_EQ(reportsAt, std::vector<std::size_t>(4, 2));
}

TEST_P(ExitWatcherContract, AnExitDuringACallbackIsReportedBeforeTheNext) {
  const ProcessId child = harness_->startChild();
  const auto handle = watch(child);
  std::optional<std::size_t> reportsAtNext;
  harness_->loop().post([&] {
    harness_->loop().post([&] { reportsAtNext = reports_.size(); });
    endAndAwait(child);
  });
  runToReports(1);
  EXPECT_EQ(reportsAtNext, 1);
}

TEST_P(ExitWatcherContract, AnImpossibleProcessNumberIsRefused) {
  for (const ProcessId number :
       {0, -1, std::numeric_limits<ProcessId>::min(), harness_->startThread()}) {
    const auto handle = harness_->watcher().watchExit(number, [](auto) { ADD_FAILURE(); });
    ASSERT_FALSE(handle) << number;
    EXPECT_EQ(handle.error().code, ErrorCode::kInvalid);
  }
  runToReports(0);
}

TEST_P(ExitWatcherContract, AnUnusedNumberIsAnEndedProcess) {
  const auto handle = watch(std::numeric_limits<ProcessId>::max());
  runToReports(1);
  EXPECT_EQ(reports_[0].status, std::nullopt);
}

TEST_P(ExitWatcherContract, WithoutDescriptorsAWatchIsRefused) {
  const ProcessId child = harness_->startChild();
  ExitWatcher& watcher = harness_->watcher();
  watch(child).reset();
  const std::size_t before = openDescriptors();
  // It contains no other call, because the sanitizers need descriptors for some of their checks.
  std::optional<Result<std::unique_ptr<RunLoopHandle>>> refused;
  harness_->withoutDescriptors(
      [&] { refused.emplace(watcher.watchExit(child, [](auto) { ADD_FAILURE(); })); });
  ASSERT_FALSE(*refused);
  EXPECT_EQ(refused->error().code, ErrorCode::kExhausted);
  EXPECT_EQ(openDescriptors(), before);
  const auto handle = watch(child);
  harness_->end(child, kKilled);
  runToReports(1);
}

TEST_P(ExitWatcherContract, ThousandsEndingAtOnceAreEachReportedOnce) {
  constexpr int kProcesses = 2500;
  const std::size_t before = openDescriptors();
  std::vector<std::unique_ptr<RunLoopHandle>> handles;
  std::set<ProcessId> children;
  for (int i = 0; i < kProcesses; ++i) {
    const ProcessId child = harness_->startChild();
    children.insert(child);
    handles.push_back(watch(child));
  }
  ASSERT_EQ(children.size(), kProcesses);
  for (const ProcessId child : children) harness_->end(child, kKilled);
  runToReports(kProcesses);
  for (const Report& report : reports_) {
    EXPECT_EQ(report.status, kKilled);
    EXPECT_EQ(children.erase(report.process), 1);
  }
  // The handles still exist, but hold nothing.
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace platform
