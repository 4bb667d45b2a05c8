#pragma once

// The contract of all termination signals. A test program derives a TerminationHarness and
// instantiates TerminationSignalsContract with a function that makes one.

#include <functional>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "Platform/BackgroundServices/TerminationSignals.h"

namespace platform {

class TerminationHarness {
 public:
  virtual ~TerminationHarness() = default;
  virtual RunLoop& loop() = 0;
  virtual TerminationSignals& signals() = 0;
  // Asks the program to terminate.
  virtual void request() = 0;
};

class TerminationSignalsContract
    : public testing::TestWithParam<std::unique_ptr<TerminationHarness> (*)()> {
 protected:
  std::unique_ptr<RunLoopHandle> watch(RunLoop::Callback onRequest) {
    auto handle = harness_->signals().watchTermination(std::move(onRequest));
    EXPECT_TRUE(handle.has_value());
    return handle ? std::move(*handle) : nullptr;
  }

  void runToStop() {
    using namespace std::chrono_literals;
    const auto deadline = harness_->loop().startTimer(60s, RunLoop::Repeat::kOnce, [this] {
      ADD_FAILURE() << "nobody stopped the loop";
      harness_->loop().stop();
    });
    harness_->loop().run();
  }

  std::unique_ptr<TerminationHarness> harness_ = GetParam()();
};

TEST_P(TerminationSignalsContract, ARequestBeforeRunIsDeliveredByIt) {
  bool called = false;
  const auto handle = watch([&] {
    called = true;
    harness_->loop().stop();
  });
  harness_->request();
  EXPECT_FALSE(called);
  runToStop();
  EXPECT_TRUE(called);
}

TEST_P(TerminationSignalsContract, EveryLaterRequestIsDeliveredToo) {
  int called = 0;
  const auto handle = watch([&] {
    if (++called < 5) {
      harness_->request();
    } else {
      harness_->loop().stop();
    }
  });
  harness_->request();
  runToStop();
  EXPECT_EQ(called, 5);
}

// Destroyed at any stage of the request's delivery.
TEST_P(TerminationSignalsContract, ADestroyedWatchIsNotCalled) {
  for (int turns = 0; turns < 5; ++turns) {
    bool destroyed = false;
    auto handle = watch([&] { EXPECT_FALSE(destroyed); });
    harness_->request();
    int left = turns + 5;
    std::function<void()> turn = [&] {
      if (--left == 5) {
        handle.reset();
        destroyed = true;
      }
      if (left == 0) return harness_->loop().stop();
      harness_->loop().post([&] { turn(); });
    };
    if (turns == 0) {
      handle.reset();
      destroyed = true;
    }
    harness_->loop().post([&] { turn(); });
    runToStop();
    EXPECT_TRUE(destroyed);
  }
}

TEST_P(TerminationSignalsContract, ACallbackMayDestroyItsWatch) {
  std::unique_ptr<RunLoopHandle> handle;
  for (int i = 0; i < 2; ++i) {
    handle = watch([&] {
      handle.reset();
      harness_->loop().stop();
    });
    harness_->request();
    runToStop();
    EXPECT_EQ(handle, nullptr);
  }
}

// Each exit causes the next one, and each ordinary callback the next one.
TEST_P(TerminationSignalsContract, ARequestAmongEndlessExitsIsDeliveredNext) {
  int calls = 0;
  int callsBefore = -1;
  const auto handle = watch([&] {
    callsBefore = calls;
    harness_->loop().stop();
  });
  std::function<void()> exit = [&] {
    if (++calls == 1000) harness_->loop().stop();  // The request is late.
    harness_->loop().post([&] { exit(); }, Urgency::kProcessExit);
  };
  int posts = 0;
  std::function<void()> post = [&] {
    ++calls;
    if (++posts == 10) {
      calls = 0;
      harness_->request();
    }
    harness_->loop().post([&] { post(); });
  };
  for (int i = 0; i < 20; ++i) {
    harness_->loop().post([&] { exit(); }, Urgency::kProcessExit);
    harness_->loop().post([&] { post(); });
  }
  runToStop();
  EXPECT_EQ(callsBefore, 0);
}

}  // namespace platform
