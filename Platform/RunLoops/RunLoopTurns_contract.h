#pragma once

// Contract of the turns that the kinds of callbacks take.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "Platform/RunLoops/RunLoopFixture_contract.h"

namespace platform {

// Callbacks of one kind that never end: each causes the next.
class EndlessCallbacks {
 public:
  enum Kind { kExits, kPostedExits, kDeaths, kPostedDeaths, kTimers, kPosts, kSources, kKinds };

  // More than a loop calls in one turn.
  static constexpr int kCount = 20;
  static constexpr int kMostCalls = 100'000;

  EndlessCallbacks(RunLoop& loop, Kind kind, int& calls) : loop_(loop), calls_(calls) {
    for (int i = 0; i < kCount; ++i) {
      if (isSource(kind)) {
        streams_.push_back(std::make_unique<TestStream>());
        streams_.back()->write(1);
        if (kind == kDeaths) streams_.back()->closePeer();
      }
      handles_.emplace_back();
      start(kind, static_cast<std::size_t>(i));
    }
  }

 private:
  static bool isSource(Kind kind) { return kind == kExits || kind == kDeaths || kind == kSources; }
  static Urgency urgencyOf(Kind kind) {
    if (kind == kExits || kind == kPostedExits) return Urgency::kProcessExit;
    if (kind == kDeaths || kind == kPostedDeaths) return Urgency::kConnectionDeath;
    return Urgency::kOrdinary;
  }

  void start(Kind kind, std::size_t i) {
    const auto callback = [this, kind, i] {
      if (++calls_ == kMostCalls) loop_.stop();  // It starves something.
      if (!isSource(kind) || kind == kExits) start(kind, i);
    };
    switch (kind) {
      case kExits:
      case kDeaths:
      case kSources:
        handles_[i] = *loop_.watchReadable(streams_[i]->descriptor(), urgencyOf(kind), callback);
        return;
      case kTimers:
        handles_[i] = loop_.startTimer(0s, RunLoop::Repeat::kOnce, callback);
        return;
      case kPostedExits:
      case kPostedDeaths:
      case kPosts:
        return loop_.post(callback, urgencyOf(kind));
      case kKinds:
        return;
    }
  }

  RunLoop& loop_;
  int& calls_;
  std::vector<std::unique_ptr<TestStream>> streams_;
  std::vector<std::unique_ptr<RunLoopHandle>> handles_;
};

// How many endless callbacks ran before one callback of each kind.
struct CallsBefore {
  int termination = -1;
  int exit = -1;
  int timer = -1;
  int post = -1;
  int source = -1;

  int most() const { return std::max({termination, exit, timer, post, source}); }
  bool all() const { return std::min({termination, exit, timer, post, source}) >= 0; }
};

// While callbacks of these kinds never end, starts one callback of each kind at the same moment.
inline CallsBefore runAmongEndless(RunLoop& loop,
                                   const std::vector<EndlessCallbacks::Kind>& kinds) {
  int calls = 0;
  std::vector<std::unique_ptr<EndlessCallbacks>> endless;
  for (const auto kind : kinds) {
    endless.push_back(std::make_unique<EndlessCallbacks>(loop, kind, calls));
  }
  CallsBefore before;
  const auto noting = [&](int CallsBefore::* which) {
    return [&, which] {
      before.*which = calls;
      if (before.all()) loop.stop();
    };
  };
  TestStream stream;
  std::vector<std::unique_ptr<RunLoopHandle>> handles;
  loop.post([&] {
    calls = 0;
    handles.push_back(loop.startTimer(0s, RunLoop::Repeat::kOnce, noting(&CallsBefore::timer)));
    loop.post(noting(&CallsBefore::post));
    loop.post(noting(&CallsBefore::exit), Urgency::kProcessExit);
    loop.post(noting(&CallsBefore::termination), Urgency::kTermination);
    stream.write(1);
    auto source = loop.watchReadable(stream.descriptor(), Urgency::kOrdinary,
                                     [&, note = noting(&CallsBefore::source)] {
                                       stream.read(1);
                                       note();
                                     });
    handles.push_back(std::move(*source));
  });
  loop.run();
  return before;
}

TEST_P(RunLoopContract, NoEndlessKindStarvesAnother) {
  for (int kind = 0; kind < EndlessCallbacks::kKinds; ++kind) {
    SCOPED_TRACE(kind);
    const CallsBefore before =
        runAmongEndless(*GetParam()(), {static_cast<EndlessCallbacks::Kind>(kind)});
    EXPECT_TRUE(before.all());
    EXPECT_EQ(before.termination, 0);
    EXPECT_LE(before.exit, EndlessCallbacks::kCount);
    EXPECT_LE(before.most(), 1000);
  }
}

TEST_P(RunLoopContract, AllEndlessKindsTogetherStarveNone) {
  const CallsBefore before =
      runAmongEndless(*GetParam()(), {EndlessCallbacks::kExits, EndlessCallbacks::kPostedExits,
                                      EndlessCallbacks::kTimers, EndlessCallbacks::kPosts,
                                      EndlessCallbacks::kSources});
  EXPECT_TRUE(before.all());
  EXPECT_EQ(before.termination, 0);
  EXPECT_LE(before.exit, 2 * EndlessCallbacks::kCount);
  EXPECT_LE(before.most(), 10000);
}

// All exits come before each death, and all deaths before each ordinary callback.
TEST_P(RunLoopContract, EndlessExitsAndDeathsLetOrdinaryCallbacksPass) {
  const CallsBefore before = runAmongEndless(
      *GetParam()(),
      {EndlessCallbacks::kExits, EndlessCallbacks::kDeaths, EndlessCallbacks::kPosts});
  EXPECT_TRUE(before.all());
  EXPECT_EQ(before.termination, 0);
  EXPECT_LE(before.exit, EndlessCallbacks::kCount);
  EXPECT_LT(before.most(), EndlessCallbacks::kMostCalls);
}

// A thousand of a kind that are ready at once keep the others waiting for a few of them.
TEST_P(RunLoopContract, ManyDueTimersLetPostsAndSourcesHaveTheirTurns) {
  std::vector<std::unique_ptr<RunLoopHandle>> timers;
  int calls = 0;
  for (int i = 0; i < 1000; ++i) {
    timers.push_back(loop_->startTimer(0s, Repeat::kOnce, [&] { ++calls; }));
  }
  loop_->sleepFor(1ms);
  int callsBeforePost = -1;
  int callsBeforeSource = -1;
  TestStream stream;
  stream.write(1);
  loop_->post([&] { callsBeforePost = calls; });
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    stream.read(1);
    callsBeforeSource = calls;
  });
  for (int i = 0; i < 1000 && calls < 1000; ++i) runFor(1ms);
  EXPECT_LE(callsBeforePost, 50);
  EXPECT_GE(callsBeforePost, 0);
  EXPECT_LE(callsBeforeSource, 50);
  EXPECT_GE(callsBeforeSource, 0);
}

TEST_P(RunLoopContract, ManyPostsLetTimersAndSourcesHaveTheirTurns) {
  int calls = 0;
  for (int i = 0; i < 1000; ++i) loop_->post([&] { ++calls; });
  int callsBeforeTimer = -1;
  int callsBeforeSource = -1;
  TestStream stream;
  stream.write(1);
  const auto timer = loop_->startTimer(0s, Repeat::kOnce, [&] { callsBeforeTimer = calls; });
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    stream.read(1);
    callsBeforeSource = calls;
  });
  for (int i = 0; i < 1000 && calls < 1000; ++i) runFor(1ms);
  EXPECT_LE(callsBeforeTimer, 50);
  EXPECT_GE(callsBeforeTimer, 0);
  EXPECT_LE(callsBeforeSource, 50);
  EXPECT_GE(callsBeforeSource, 0);
}

// Events that an exit causes wait for one ordinary callback.
TEST_P(RunLoopContract, AnExitThatAnExitCausedLetsOneOrdinaryCallbackPass) {
  loop_->post(
      [&] {
        log_.push_back("exit");
        loop_->post(note("second exit"), Urgency::kProcessExit);
      },
      Urgency::kProcessExit);
  loop_->post(note("post"));
  loop_->post(note("second post"));
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"exit", "post", "second exit", "second post"}));
}

TEST_P(RunLoopContract, ARequestToTerminateComesBeforeExits) {
  TestStream requested;
  TestStream exiting;
  exiting.write(1);
  const auto exit = watch(exiting, Urgency::kProcessExit, note("exit"));
  const auto request = watch(requested, Urgency::kTermination, note("request"));
  loop_->post(
      [&] {
        log_.push_back("exit");
        requested.write(1);
        loop_->post(note("posted request"), Urgency::kTermination);
      },
      Urgency::kProcessExit);
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"exit", "posted request", "request", "exit"}));
}

}  // namespace platform
