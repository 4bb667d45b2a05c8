#include "Platform/Testing/BackgroundServices/FakeTerminationSignals.h"

#include <gtest/gtest.h>

#include "Platform/BackgroundServices/TerminationSignals_contract.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

class FakeSignals final : public TerminationHarness {
 public:
  RunLoop& loop() override { return loop_; }
  TerminationSignals& signals() override { return signals_; }
  void request() override { signals_.request(); }

 private:
  VirtualRunLoop loop_;
  FakeTerminationSignals signals_{loop_};
};

std::unique_ptr<TerminationHarness> makeFakeSignalsHarness() {
  return std::make_unique<FakeSignals>();
}

INSTANTIATE_TEST_SUITE_P(Fake, TerminationSignalsContract,
                         testing::Values(&makeFakeSignalsHarness));

TEST(FakeTerminationSignalsTest, AnUnwatchedRequestEndsTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  VirtualRunLoop loop;
  FakeTerminationSignals signals(loop);
  EXPECT_DEATH(signals.request(), "");
}

}  // namespace
}  // namespace platform
