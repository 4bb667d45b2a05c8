// Many services that crash at each start, beside a healthy one.

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ServiceManager/ServiceManager/Operator_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class CrashLoopsTest : public OperatorFixture {
 protected:
  // Core services whose jobs have the default throttle; each of their processes ends after this
  // time.
  void startWithCrashLoops(int count, Duration life) {
    Dictionary services{{kPrimary, entry("configd")}, {kHelper, entry("helper")}};
    for (int i = 0; i < count; ++i) {
      crashing_.push_back("com.example.crash" + std::to_string(i));
      services.set(crashing_.back(),
                   entry("crash", {{"JobSpec", Dictionary{{"Program", "crash"}}}}));
    }
    install(catalogue(services));
    starts_ = jobs_.observeStarts([this, life](std::string_view started, Jobs::Start start) {
      if (start != Jobs::Start::kStarted || !started.starts_with("com.example.crash")) return;
      loop_.scheduleOutsideEvent(life, [this, label = std::string(started)] {
        if (isRunning(label.c_str())) jobs_.endProcess(label, {ExitStatus::Kind::kSignalled, 6});
      });
    });
    startConfigurationServer();
    start();
  }

  std::vector<std::string> crashing_;
  std::unique_ptr<RunLoopHandle> starts_;
};

TEST_F(CrashLoopsTest, AHundredWithTheDefaultThrottleHoldUpNobody) {
  startWithCrashLoops(100, 1ms);
  for (int second = 0; second < 180; ++second) {
    loop_.advanceBy(1s);
    const Instant before = loop_.now();
    ASSERT_FALSE(ask("overview").isNil()) << second;
    ASSERT_EQ(loop_.now(), before);
  }
  EXPECT_EQ(jobs_.starts(kHelper), 1u);
  for (const std::string& label : crashing_) EXPECT_GE(jobs_.starts(label), 17u) << label;
  const int process = this->process(kHelper);
  jobs_.endProcess(kHelper);
  loop_.runReady();
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_NE(this->process(kHelper), process);
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kHelper));
}

}  // namespace
