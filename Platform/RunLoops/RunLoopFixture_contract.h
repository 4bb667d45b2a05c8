#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Testing/Machine/TestStream.h"

namespace platform {

// The fixture of the run loop contract, see RunLoop_contract.h.
class RunLoopContract : public testing::TestWithParam<std::unique_ptr<RunLoop> (*)()> {
 protected:
  using Repeat = RunLoop::Repeat;
  using Log = std::vector<std::string>;

  // Runs until stop(). A loop that never stops is a failure.
  void runToStop() {
    using namespace std::chrono_literals;
    const auto deadline = loop_->startTimer(60s, Repeat::kOnce, [this] {
      ADD_FAILURE() << "nobody stopped the loop";
      loop_->stop();
    });
    loop_->run();
  }

  // Runs ready callbacks, and continues for `duration`.
  void runFor(Duration duration) {
    const auto end = loop_->startTimer(duration, Repeat::kOnce, [this] { loop_->stop(); });
    runToStop();
  }

  RunLoop::Callback note(std::string text) {
    return [this, text = std::move(text)] { log_.push_back(text); };
  }

  std::unique_ptr<RunLoopHandle> watch(const TestStream& stream, Urgency urgency,
                                       RunLoop::Callback callback) {
    auto source = loop_->watchReadable(stream.descriptor(), urgency, std::move(callback));
    EXPECT_TRUE(source.has_value());
    return source ? std::move(*source) : nullptr;
  }

  // Two sources are ready at once, and the one that is called first destroys both.
  void runSourcesThatDestroyEachOther(Urgency urgency) {
    using namespace std::chrono_literals;
    TestStream stream;
    TestStream other;
    stream.write(1);
    other.write(1);
    std::unique_ptr<RunLoopHandle> first;
    std::unique_ptr<RunLoopHandle> second;
    const auto destroyBoth = [&] {
      log_.push_back("called");
      first.reset();
      second.reset();
    };
    first = watch(stream, urgency, destroyBoth);
    second = watch(other, urgency, destroyBoth);
    runFor(2ms);
  }

  std::unique_ptr<RunLoop> loop_ = GetParam()();
  Log log_;
};

using namespace std::chrono_literals;

}  // namespace platform
