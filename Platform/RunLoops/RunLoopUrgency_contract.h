#pragma once

// Contract of the order of delivery.

#include <memory>
#include <string>
#include <vector>

#include "Platform/RunLoops/RunLoopFixture_contract.h"

namespace platform {

TEST_P(RunLoopContract, AnUrgentSourceCallsOnce) {
  TestStream stream;
  stream.write(1);
  const auto source = watch(stream, Urgency::kProcessExit, note("exit"));
  runFor(1ms);
  stream.write(1);
  runFor(1ms);
  EXPECT_EQ(log_, Log{"exit"});
}

TEST_P(RunLoopContract, ADestroyedUrgentSourceDoesNotCall) {
  runSourcesThatDestroyEachOther(Urgency::kProcessExit);
  EXPECT_EQ(log_, Log{"called"});
}

TEST_P(RunLoopContract, ADeathIsThePeersEndEvenWithUnreadData) {
  TestStream stream;
  stream.write(1);
  const auto source = watch(stream, Urgency::kConnectionDeath, note("death"));
  runFor(1ms);
  EXPECT_TRUE(log_.empty());
  stream.closePeer();
  runFor(1ms);
  EXPECT_EQ(log_, Log{"death"});
  EXPECT_EQ(stream.read(1), 1);
}

TEST_P(RunLoopContract, UrgentEventsComeBeforeEarlierOrdinaryOnes) {
  TestStream exiting;
  TestStream dying;
  TestStream readable;
  const auto timer = loop_->startTimer(0s, Repeat::kOnce, note("timer"));
  loop_->post(note("post"));
  readable.write(1);
  const auto source = watch(readable, Urgency::kOrdinary, [&] {
    readable.read(1);
    log_.push_back("source");
  });
  loop_->post(note("death"), Urgency::kConnectionDeath);
  dying.closePeer();
  const auto death = watch(dying, Urgency::kConnectionDeath, note("death"));
  loop_->post(note("exit"), Urgency::kProcessExit);
  exiting.write(1);
  const auto exit = watch(exiting, Urgency::kProcessExit, note("exit"));
  runFor(2ms);
  ASSERT_EQ(log_.size(), 7);
  EXPECT_EQ(Log(log_.begin(), log_.begin() + 4), (Log{"exit", "exit", "death", "death"}));
}

// An event during an ordinary callback comes before the next ordinary callback, for all kinds of
// callbacks.
TEST_P(RunLoopContract, NewUrgentEventsComeBeforeTheNextOrdinaryCallback) {
  enum Kind { kPost, kTimer, kSource, kKinds };
  for (int firstKind = 0; firstKind < kKinds; ++firstKind) {
    for (int secondKind = 0; secondKind < kKinds; ++secondKind) {
      SCOPED_TRACE(std::to_string(firstKind) + ", then " + std::to_string(secondKind));
      log_.clear();
      TestStream exiting;
      TestStream dying;
      const auto exit = watch(exiting, Urgency::kProcessExit, note("exit"));
      const auto death = watch(dying, Urgency::kConnectionDeath, note("death"));
      int ordinary = 0;
      TestStream streams[2];
      std::vector<std::unique_ptr<RunLoopHandle>> handles;
      for (const int i : {0, 1}) {
        const auto callback = [&, i] {
          streams[i].read(1);
          log_.push_back("ordinary");
          if (++ordinary == 2) return loop_->stop();
          dying.closePeer();
          exiting.write(1);
          loop_->post(note("posted death"), Urgency::kConnectionDeath);
          loop_->post(note("posted exit"), Urgency::kProcessExit);
        };
        switch (i == 0 ? firstKind : secondKind) {
          case kPost:
            loop_->post(callback);
            break;
          case kTimer:
            handles.push_back(loop_->startTimer(0s, Repeat::kOnce, callback));
            break;
          case kSource:
            streams[i].write(1);
            handles.push_back(watch(streams[i], Urgency::kOrdinary, callback));
            break;
        }
      }
      runToStop();
      EXPECT_EQ(log_,
                (Log{"ordinary", "posted exit", "exit", "posted death", "death", "ordinary"}));
    }
  }
}

TEST_P(RunLoopContract, AnExitDuringADeathComesBeforeTheNextDeath) {
  TestStream exiting;
  TestStream dying;
  TestStream dyingToo;
  const auto exit = watch(exiting, Urgency::kProcessExit, note("exit"));
  const auto onDeath = [&] {
    log_.push_back("death");
    if (log_.size() == 1) exiting.write(1);
  };
  const auto first = watch(dying, Urgency::kConnectionDeath, onDeath);
  const auto second = watch(dyingToo, Urgency::kConnectionDeath, onDeath);
  dying.closePeer();
  dyingToo.closePeer();
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"death", "exit", "death"}));
}

TEST_P(RunLoopContract, AnExitComesBeforeHundredsOfEarlierDeaths) {
  std::vector<std::unique_ptr<TestStream>> streams;
  std::vector<std::unique_ptr<RunLoopHandle>> sources;
  for (int i = 0; i < 300; ++i) {
    TestStream& stream = *streams.emplace_back(std::make_unique<TestStream>());
    sources.push_back(watch(stream, Urgency::kConnectionDeath, note("death")));
    stream.closePeer();
  }
  TestStream exiting;
  const auto exit = watch(exiting, Urgency::kProcessExit, note("exit"));
  exiting.write(1);
  runFor(1ms);
  ASSERT_EQ(log_.size(), 301);
  EXPECT_EQ(log_[0], "exit");
}

TEST_P(RunLoopContract, AnUrgentCallbackMayDestroyReadyOrdinarySources) {
  TestStream stream;
  std::unique_ptr<RunLoopHandle> source;
  std::unique_ptr<RunLoopHandle> timer;
  stream.write(1);
  source = watch(stream, Urgency::kOrdinary, note("source"));
  timer = loop_->startTimer(0s, Repeat::kOnce, note("timer"));
  loop_->post(
      [&] {
        source.reset();
        timer.reset();
      },
      Urgency::kConnectionDeath);
  runFor(2ms);
  EXPECT_TRUE(log_.empty());
}

TEST_P(RunLoopContract, ADescriptorHasOneOrdinaryAndOneUrgentSource) {
  TestStream stream;
  auto ordinary = watch(stream, Urgency::kOrdinary, [&] {
    stream.read(1);
    log_.push_back("readable");
  });
  const auto urgent = watch(stream, Urgency::kConnectionDeath, [&] {
    ordinary.reset();
    log_.push_back("death");
  });
  for (const Urgency urgency :
       {Urgency::kOrdinary, Urgency::kConnectionDeath, Urgency::kProcessExit}) {
    const auto another = loop_->watchReadable(stream.descriptor(), urgency, note("another"));
    ASSERT_FALSE(another);
    EXPECT_EQ(another.error().code, ErrorCode::kInvalid);
  }
  stream.write(1);
  runFor(2ms);
  EXPECT_EQ(log_, Log{"readable"});
  stream.closePeer();
  runFor(2ms);
  EXPECT_EQ(log_, (Log{"readable", "death"}));
}

TEST_P(RunLoopContract, AnUrgentSourceFreesItsDescriptorAfterItsCall) {
  TestStream stream;
  stream.write(1);
  std::unique_ptr<RunLoopHandle> again;
  const auto source = watch(stream, Urgency::kProcessExit, [&] {
    again = watch(stream, Urgency::kProcessExit, [&] { loop_->stop(); });
  });
  runToStop();
}

}  // namespace platform
