// The operator's facts of switches whose settings server is slow, hung or faulty.

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ServiceManager/ServiceManager/Operator_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class OperatorSwitchesTest : public OperatorFixture {};

// A server that answers slowly.
class SlowClient final : public SettingsClient {
 public:
  SlowClient(VirtualRunLoop& loop, Duration time) : loop_(loop), time_(time) {}
  Value objectForKey(std::string_view key) override {
    return probeObjectForKey(key, 10s).value_or(Value());
  }
  MessageResult probeObjectForKey(std::string_view, Duration timeOut) override {
    loop_.sleepFor(std::min(timeOut, time_));
    if (time_ <= timeOut) return Value(1);
    return std::unexpected(NSException{kNSPortTimeoutException, "", {}});
  }
  void forgetConnection() override {}

 private:
  VirtualRunLoop& loop_;
  const Duration time_;
};

TEST_F(OperatorSwitchesTest, ASlowSettingsServerHasTwoSecondsInAll) {
  factories_.add("commonSettingsClientWithDelegate:",
                 [this](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   return std::make_unique<SlowClient>(loop_, 1s);
                 });
  startAll();
  const Instant before = loop_.now();
  const Value facts = serviceFacts(kAgent);
  EXPECT_EQ(loop_.now() - before, 2s);
  std::vector<std::string> outcomes;
  for (const Value& row : *facts[kFactSwitches].array())
    outcomes.push_back(*row[kFactOutcome].string());
  EXPECT_THAT(outcomes, ElementsAre("matches", "clashes", "noAnswer", "noAnswer", "noSource"));
}

TEST_F(OperatorSwitchesTest, AHungSettingsServerIsWaitedForOnce) {
  factories_.add("commonSettingsClientWithDelegate:",
                 [this](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   return std::make_unique<SlowClient>(loop_, 10s);
                 });
  startAll();
  const Instant before = loop_.now();
  const Value facts = serviceFacts(kAgent);
  EXPECT_EQ(loop_.now() - before, 2s);
  const Array& switches = *facts[kFactSwitches].array();
  ASSERT_EQ(switches.size(), 5u);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(switches[i][kFactOutcome], Value("noAnswer"));
    EXPECT_EQ(switches[i][kFactCurrent], Value());
  }
  EXPECT_EQ(switches[4][kFactOutcome], Value("noSource"));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(OperatorSwitchesTest, AServerThatHungLatelyGetsLittleTime) {
  factories_.add("commonSettingsClientWithDelegate:",
                 [this](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   return std::make_unique<SlowClient>(loop_, 10s);
                 });
  startAll();
  serviceFacts(kAgent);
  const Instant before = loop_.now();
  serviceFacts(kAgent);
  EXPECT_EQ(loop_.now() - before, 20ms);
  loop_.sleepFor(30s);
  const Instant later = loop_.now();
  serviceFacts(kAgent);
  EXPECT_EQ(loop_.now() - later, 2s);
}

// A server that raises at once for one of its keys.
class RaisingClient final : public SettingsClient {
 public:
  Value objectForKey(std::string_view key) override {
    return probeObjectForKey(key, 10s).value_or(Value());
  }
  MessageResult probeObjectForKey(std::string_view key, Duration) override {
    if (key == "level") return std::unexpected(NSException{"Corrupt", "page 7\033", {}});
    return Value(1);
  }
  void forgetConnection() override {}
};

TEST_F(OperatorSwitchesTest, ASettingsServerThatRaisesIsAskedForOtherSwitches) {
  factories_.add("commonSettingsClientWithDelegate:",
                 [](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                   return std::make_unique<RaisingClient>();
                 });
  startAll();
  const Value facts = factsOf(kAgent);
  const Array& switches = *facts[kFactSwitches].array();
  ASSERT_EQ(switches.size(), 5u);
  EXPECT_EQ(switches[0][kFactOutcome], Value("matches"));
  EXPECT_EQ(switches[1][kFactOutcome], Value("refused"));
  EXPECT_EQ(switches[1][kFactRefusal], Value("Corrupt: page 7\033"));
  EXPECT_EQ(switches[2][kFactOutcome], Value("matches"));
}

}  // namespace
