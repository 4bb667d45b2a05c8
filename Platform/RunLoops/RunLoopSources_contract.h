#pragma once

// Contract of ordinary readable sources.

#include <functional>
#include <memory>
#include <vector>

#include "Platform/RunLoops/RunLoopFixture_contract.h"

namespace platform {

TEST_P(RunLoopContract, ASourceCallsUntilItIsReadEmpty) {
  TestStream stream;
  stream.write(3);
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    log_.push_back("readable");
    stream.read(1);
  });
  runFor(2ms);
  EXPECT_EQ(log_.size(), 3);
  stream.write(1);
  runFor(2ms);
  EXPECT_EQ(log_.size(), 4);
}

TEST_P(RunLoopContract, ASourceIsCalledAtTheEndOfItsStream) {
  TestStream stream;
  stream.closePeer();
  int calls = 0;
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    EXPECT_EQ(stream.read(1), 0);
    if (++calls == 3) loop_->stop();
  });
  runToStop();
  EXPECT_EQ(calls, 3);
}

TEST_P(RunLoopContract, ASourceThatIsNeverReadDoesNotStarveOthers) {
  TestStream unread;
  TestStream stream;
  unread.write(1);
  stream.write(1);
  bool timerRan = false;
  bool postRan = false;
  bool sourceRan = false;
  const auto stopIfDone = [&] {
    if (timerRan && postRan && sourceRan) loop_->stop();
  };
  const auto busy = watch(unread, Urgency::kOrdinary, [&] {
    loop_->sleepFor(10us);  // The timer falls due, also in virtual time.
    stopIfDone();
  });
  const auto other = watch(stream, Urgency::kOrdinary, [&] {
    stream.read(1);
    sourceRan = true;
  });
  const auto timer = loop_->startTimer(1ms, Repeat::kOnce, [&] {
    loop_->post([&] { postRan = true; });
    timerRan = true;
  });
  runToStop();
}

TEST_P(RunLoopContract, ASourceThatAnotherReadEmptyIsNotCalled) {
  TestStream stream;
  TestStream other;
  stream.write(1);
  other.write(1);
  int calls = 0;
  const auto readBoth = [&] {
    ++calls;
    stream.read(1);
    other.read(1);
  };
  const auto first = watch(stream, Urgency::kOrdinary, readBoth);
  const auto second = watch(other, Urgency::kOrdinary, readBoth);
  runFor(2ms);
  EXPECT_EQ(calls, 1);
}

TEST_P(RunLoopContract, ASourcesCallbackMayDestroyItAndOthers) {
  runSourcesThatDestroyEachOther(Urgency::kOrdinary);
  EXPECT_EQ(log_, Log{"called"});
}

TEST_P(RunLoopContract, ADescriptorCanBeWatchedAgainAfterItsSource) {
  TestStream stream;
  stream.write(1);
  for (const Urgency urgency :
       {Urgency::kOrdinary, Urgency::kProcessExit, Urgency::kOrdinary, Urgency::kProcessExit}) {
    const auto source = watch(stream, urgency, [this] { loop_->stop(); });
    runToStop();
  }
}

TEST_P(RunLoopContract, ADescriptorThatCannotBeWatchedIsRefused) {
  for (const TestFile::Kind kind :
       {TestFile::Kind::kRegular, TestFile::Kind::kDirectory, TestFile::Kind::kClosed}) {
    const TestFile file(kind);
    for (const Urgency urgency : {Urgency::kOrdinary, Urgency::kProcessExit}) {
      const auto source = loop_->watchReadable(file.descriptor(), urgency, [] {});
      ASSERT_FALSE(source);
      EXPECT_EQ(source.error().code, ErrorCode::kInvalid);
    }
  }
  EXPECT_FALSE(loop_->watchReadable(-1, Urgency::kOrdinary, [] {}));
}

TEST_P(RunLoopContract, ManySourcesAreAllCalled) {
  constexpr int kStreams = 200;  // Two descriptors each, and twice: below the usual limit of 1,024.
  std::vector<std::unique_ptr<TestStream>> streams;
  std::vector<std::unique_ptr<RunLoopHandle>> sources;
  std::vector<int> calls(kStreams * 2);
  int called = 0;
  for (int i = 0; i < kStreams * 2; ++i) {
    TestStream& stream = *streams.emplace_back(std::make_unique<TestStream>());
    sources.push_back(
        watch(stream, i % 2 == 0 ? Urgency::kProcessExit : Urgency::kOrdinary, [&, i] {
          stream.read(1);
          ++calls[i];
          if (++called == kStreams * 2) loop_->stop();
        }));
  }
  for (const auto& stream : streams) stream->write(1);
  runToStop();
  EXPECT_EQ(calls, std::vector<int>(kStreams * 2, 1));
}

TEST_P(RunLoopContract, TheLoopClosesAllItsDescriptors) {
  const std::size_t before = openDescriptors();
  {
    const auto another = GetParam()();
    TestStream stream;
    stream.closePeer();
    std::vector<std::unique_ptr<RunLoopHandle>> handles;
    for (const Urgency urgency : {Urgency::kOrdinary, Urgency::kConnectionDeath}) {
      auto source = another->watchReadable(stream.descriptor(), urgency, [&] { another->stop(); });
      ASSERT_TRUE(source);
      handles.push_back(std::move(*source));
    }
    another->run();
    another->run();
    handles.clear();
  }
  EXPECT_EQ(openDescriptors(), before);
}

}  // namespace platform
