#include "Platform/Linux/BackgroundServices/AsioTerminationSignals.h"

#include <csignal>

#include <gtest/gtest.h>

#include "Platform/BackgroundServices/TerminationSignals_contract.h"

namespace platform {
namespace {

template <int signal>
class RealSignals final : public TerminationHarness {
 public:
  RunLoop& loop() override { return *loop_; }
  TerminationSignals& signals() override { return signals_; }
  void request() override { EXPECT_EQ(::raise(signal), 0); }

 private:
  std::unique_ptr<AsioRunLoop> loop_ = std::move(*AsioRunLoop::create());
  AsioTerminationSignals signals_{*loop_};
};

template <int signal>
std::unique_ptr<TerminationHarness> makeSignalsHarness() {
  return std::make_unique<RealSignals<signal>>();
}

INSTANTIATE_TEST_SUITE_P(Sigterm, TerminationSignalsContract,
                         testing::Values(&makeSignalsHarness<SIGTERM>));
INSTANTIATE_TEST_SUITE_P(Sigint, TerminationSignalsContract,
                         testing::Values(&makeSignalsHarness<SIGINT>));

TEST(AsioTerminationSignalsTest, WithoutAWatchTheSignalEndsTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        auto loop = AsioRunLoop::create();
        AsioTerminationSignals signals(**loop);
        auto handle = signals.watchTermination([] {});
        ::raise(SIGTERM);
        handle->reset();
        ::raise(SIGTERM);
      },
      testing::KilledBySignal(SIGTERM), "");
}

}  // namespace
}  // namespace platform
