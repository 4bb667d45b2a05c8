#include "ServiceManager/Supervision/MainThreadWork.h"

#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class MainThreadWorkTest : public testing::Test {
 protected:
  std::string current() const {
    const auto work = work_.current();
    return work ? std::string(work->what) + " " + work->label : "";
  }

  VirtualRunLoop loop_;
  MainThreadWork work_{loop_};
};

TEST_F(MainThreadWorkTest, TheInnermostScopeCounts) {
  EXPECT_EQ(current(), "");
  {
    const MainThreadWork::Scope outer(work_, kWorkEvaluates, "a");
    EXPECT_EQ(current(), "evaluates a");
    {
      const MainThreadWork::Scope inner(work_, kWorkChecksProgram, "b");
      EXPECT_EQ(current(), "checksProgram b");
    }
    EXPECT_EQ(current(), "evaluates a");
  }
  EXPECT_EQ(current(), "");
}

TEST_F(MainThreadWorkTest, AScopeKeepsItsBeginning) {
  const MainThreadWork::Scope scope(work_, kWorkEvaluates, "a");
  const Instant begin = loop_.now();
  loop_.sleepFor(3s);
  EXPECT_EQ(work_.current()->since, begin);
}

TEST_F(MainThreadWorkTest, AnotherThreadMayReadMeanwhile) {
  std::jthread reader([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const auto work = work_.current();
      EXPECT_TRUE(!work || work->label == "com.example.agent");
    }
  });
  for (int i = 0; i < 10'000; ++i) {
    const std::string label = "com.example.agent";
    const MainThreadWork::Scope outer(work_, kWorkEvaluates, label);
    const MainThreadWork::Scope inner(work_, kWorkChecksProgram, label);
  }
}

}  // namespace
