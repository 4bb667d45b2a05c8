#pragma once

// Contract of run(), stop(), post() and sleepFor().

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Platform/RunLoops/RunLoopFixture_contract.h"

namespace platform {

TEST_P(RunLoopContract, NothingRunsInsideTheCallThatRegistersIt) {
  TestStream stream;
  stream.write(1);
  loop_->post(note("post"));
  loop_->post(note("urgent post"), Urgency::kProcessExit);
  const auto timer = loop_->startTimer(0s, Repeat::kOnce, note("timer"));
  const auto source = watch(stream, Urgency::kProcessExit, note("source"));
  EXPECT_TRUE(log_.empty());
  runFor(1ms);
  EXPECT_EQ(log_.size(), 4);
}

TEST_P(RunLoopContract, PostsRunInTheirOrder) {
  for (int i = 0; i < 5; ++i) loop_->post(note(std::to_string(i)));
  loop_->post([this] {
    loop_->post(note("nested"));
    log_.push_back("nesting");
  });
  loop_->post(note("last"));
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"0", "1", "2", "3", "4", "nesting", "last", "nested"}));
}

TEST_P(RunLoopContract, PostsThatPostAgainDoNotStarveOthers) {
  TestStream stream;
  stream.write(1);
  bool timerRan = false;
  bool sourceRan = false;
  std::function<void()> again = [&] {
    if (timerRan && sourceRan) return loop_->stop();
    loop_->post([&] { again(); });
    loop_->sleepFor(10us);  // The timer falls due, also in virtual time.
  };
  loop_->post([&] { again(); });
  const auto timer = loop_->startTimer(1ms, Repeat::kOnce, [&] { timerRan = true; });
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    sourceRan = true;
    stream.read(1);
  });
  runToStop();
  EXPECT_TRUE(timerRan && sourceRan);
}

TEST_P(RunLoopContract, PostsThatHaveNotRunAreDroppedWithTheLoop) {
  const auto held = std::make_shared<int>();  // Owned by the callbacks and this test.
  for (const Urgency urgency :
       {Urgency::kProcessExit, Urgency::kConnectionDeath, Urgency::kOrdinary}) {
    // The second post owns a timer of the loop; the third posts again when it is dropped.
    loop_->post([held] {}, urgency);
    auto timer = loop_->startTimer(1h, Repeat::kOnce, [held] {});
    loop_->post([timer = std::move(timer)] {}, urgency);
    // Only its post owns it; it is shared for its deleter.
    auto posting = std::shared_ptr<RunLoop>(
        loop_.get(), [urgency, held](RunLoop* loop) { loop->post([held] {}, urgency); });
    loop_->post([posting = std::move(posting)] {}, urgency);
  }
  loop_.reset();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_P(RunLoopContract, PostsOfOtherThreadsRunInTheOrderOfTheirThread) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 500;
  std::vector<int> last(kThreads, -1);
  int ran = 0;
  // Keeps a virtual loop busy until the threads have started.
  const auto busy = loop_->startTimer(100us, Repeat::kEvery, [] {});
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kPosts; ++i) {
        loop_->post([&, thread, i] {
          EXPECT_EQ(last[thread], i - 1);
          last[thread] = i;
          if (++ran == kThreads * kPosts) loop_->stop();
        });
      }
    });
  }
  loop_->run();
  EXPECT_EQ(ran, kThreads * kPosts);
}

TEST_P(RunLoopContract, UrgentPostsOfOtherThreadsAllRun) {
  constexpr int kPosts = 1000;
  int ran = 0;
  const auto busy = loop_->startTimer(100us, Repeat::kEvery, [] {});
  std::jthread thread([&] {
    for (int i = 0; i < kPosts; ++i) {
      loop_->post(
          [&] {
            if (++ran == kPosts) loop_->stop();
          },
          i % 2 == 0 ? Urgency::kProcessExit : Urgency::kConnectionDeath);
    }
  });
  loop_->run();
  EXPECT_EQ(ran, kPosts);
}

TEST_P(RunLoopContract, StopBeforeRunMakesTheNextRunReturnAtOnce) {
  loop_->post(note("post"));
  loop_->post(note("exit"), Urgency::kProcessExit);
  loop_->stop();
  loop_->run();
  EXPECT_TRUE(log_.empty());
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"exit", "post"}));
}

TEST_P(RunLoopContract, NothingRunsAfterStopAndNothingIsLost) {
  TestStream stream;
  TestStream dying;
  loop_->post([&] {
    loop_->stop();
    stream.write(1);
    dying.closePeer();
    loop_->post(note("exit"), Urgency::kProcessExit);
  });
  loop_->post(note("post"));
  const auto timer = loop_->startTimer(0s, Repeat::kOnce, note("timer"));
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    stream.read(1);
    log_.push_back("source");
  });
  const auto death = watch(dying, Urgency::kConnectionDeath, note("death"));
  loop_->run();
  // Callbacks that were ready together with the stopping one may have run before it.
  const Log before = log_;
  EXPECT_TRUE(before.empty() || before == Log{"timer"}) << testing::PrintToString(before);
  // Repeated, because on a busy machine the time may end first.
  for (int i = 0; i < 1000 && log_.size() < 5; ++i) runFor(1ms);
  ASSERT_EQ(log_.size(), 5);
  EXPECT_EQ(log_[before.size()], "exit");
  EXPECT_EQ(log_[before.size() + 1], "death");
}

TEST_P(RunLoopContract, NoFurtherTimerRunsAfterOneHasStoppedTheLoop) {
  const auto first = loop_->startTimer(0s, Repeat::kOnce, [&] {
    log_.push_back("first");
    loop_->stop();
  });
  const auto second = loop_->startTimer(0s, Repeat::kOnce, note("second"));
  loop_->sleepFor(1ms);
  runToStop();
  EXPECT_EQ(log_, Log{"first"});
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"first", "second"}));
}

TEST_P(RunLoopContract, NoFurtherSourceIsCalledAfterOneHasStoppedTheLoop) {
  TestStream streams[2];
  std::vector<std::unique_ptr<RunLoopHandle>> sources;
  for (TestStream& stream : streams) {
    stream.write(1);
    sources.push_back(watch(stream, Urgency::kOrdinary, [&] {
      log_.push_back("source");
      stream.read(1);
      loop_->stop();
    }));
  }
  runToStop();
  EXPECT_EQ(log_.size(), 1);
  runToStop();
  EXPECT_EQ(log_.size(), 2);
}

TEST_P(RunLoopContract, AnUrgentCallbackMayStopTheLoop) {
  loop_->post([&] { loop_->stop(); }, Urgency::kProcessExit);
  loop_->post(note("exit"), Urgency::kProcessExit);
  loop_->post(note("post"));
  loop_->run();
  EXPECT_TRUE(log_.empty());
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"exit", "post"}));
}

TEST_P(RunLoopContract, AnotherThreadMayStopTheLoop) {
  std::atomic<bool> running = false;
  const auto busy = loop_->startTimer(100us, Repeat::kEvery, [&] { running = true; });
  std::jthread thread([&] {
    while (!running) std::this_thread::yield();
    loop_->stop();
  });
  loop_->run();
  EXPECT_TRUE(running);
}

TEST_P(RunLoopContract, TheLoopCanBeRunManyTimes) {
  int ran = 0;
  for (int i = 0; i < 100; ++i) {
    loop_->post([&] {
      ++ran;
      loop_->stop();
    });
    runToStop();
  }
  EXPECT_EQ(ran, 100);
}

TEST_P(RunLoopContract, SleepingServesNothing) {
  const Instant start = loop_->now();
  const auto timer = loop_->startTimer(1ms, Repeat::kOnce, note("timer"));
  loop_->post(note("post"));
  loop_->post(note("exit"), Urgency::kProcessExit);
  loop_->sleepFor(3ms);
  EXPECT_GE(loop_->now() - start, 3ms);
  EXPECT_TRUE(log_.empty());
  loop_->sleepFor(0s);
  loop_->sleepFor(-1h);
  runFor(1ms);
  EXPECT_EQ(log_.size(), 3);
}

}  // namespace platform
