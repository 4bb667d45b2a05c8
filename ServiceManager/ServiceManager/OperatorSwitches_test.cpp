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

// A server that answers slowly, or, if it hangs, never.
class SlowClient final : public SettingsClient {
 public:
  SlowClient(VirtualRunLoop& loop, const Duration& time, const Value& answer)
      : loop_(loop), time_(time), answer_(answer) {}
  Value objectForKey(std::string_view key) override {
    return probeObjectForKey(key, 10s).value_or(Value());
  }
  MessageResult probeObjectForKey(std::string_view, Duration timeOut) override {
    loop_.sleepFor(std::min(timeOut, time_));
    if (time_ <= timeOut) return answer_;
    return std::unexpected(NSException{kNSPortTimeoutException, "", {}});
  }
  bool isServerHung() override { return time_ > 10s; }
  void forgetConnection() override {}

 private:
  VirtualRunLoop& loop_;
  const Duration& time_;
  const Value& answer_;
};

class SlowSwitchesTest : public OperatorSwitchesTest {
 protected:
  static constexpr Duration kHangs = 1h;

  // The server takes this time for each answer from now on.
  void startAllWithin(Duration time) {
    time_ = time;
    factories_.add("commonSettingsClientWithDelegate:",
                   [this](KLXGlobalSettingsClientDelegate&) -> SettingsClientResult {
                     return std::make_unique<SlowClient>(loop_, time_, answer_);
                   });
    startAll();
  }
  Value facts() {
    const Instant before = loop_.now();
    Value facts = serviceFacts(kAgent);
    taken_ = loop_.now() - before;
    return facts;
  }
  static std::vector<std::string> outcomesIn(const Value& facts) {
    std::vector<std::string> outcomes;
    for (const Value& row : *facts[kFactSwitches].array())
      outcomes.push_back(*row[kFactOutcome].string());
    return outcomes;
  }

  Duration time_{};
  Value answer_ = 1;  // to every question
  Duration taken_{};  // by the last facts()
};

TEST_F(SlowSwitchesTest, ASlowServerHasFortyMillisecondsInAll) {
  startAllWithin(15ms);
  const Value slow = facts();
  EXPECT_EQ(taken_, 40ms);
  const Array& switches = *slow[kFactSwitches].array();
  EXPECT_EQ(switches[0][kFactCurrentAge], Value());
  EXPECT_EQ(switches[1][kFactCurrentAge], Value());
  EXPECT_FALSE(switches[2][kFactCurrentAge].isNil());
  EXPECT_FALSE(switches[3][kFactCurrentAge].isNil());
  EXPECT_THAT(outcomesIn(slow),
              ElementsAre("matches", "clashes", "matches", "matches", "noSource"));
}

TEST_F(SlowSwitchesTest, WithoutAnAnswerTheValuesOfTheLastEvaluationCount) {
  startAllWithin(0ms);
  loop_.advanceBy(3s);
  time_ = kHangs;
  const Value facts = this->facts();
  EXPECT_EQ(taken_, 40ms);
  EXPECT_THAT(outcomesIn(facts),
              ElementsAre("matches", "clashes", "matches", "matches", "noSource"));
  const Value& row = (*facts[kFactSwitches].array())[0];
  EXPECT_EQ(row[kFactCurrent], Value(1));
  EXPECT_NEAR(row[kFactCurrentAge].real().value_or(0), 4, 1);
  EXPECT_EQ(facts[kFactReason], Value(kReasonSwitch));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(SlowSwitchesTest, AServerThatNeverAnsweredHasNoValues) {
  startAllWithin(kHangs);
  loop_.advanceBy(1min);
  EXPECT_THAT(outcomesIn(facts()),
              ElementsAre("noAnswer", "noAnswer", "noAnswer", "noAnswer", "noSource"));
  EXPECT_LE(taken_, 40ms);
}

TEST_F(SlowSwitchesTest, AnAbsentSettingStaysAbsentWithoutAnAnswer) {
  answer_ = Value();
  startAllWithin(0ms);
  loop_.advanceBy(3s);
  time_ = kHangs;
  const Value facts = this->facts();
  EXPECT_THAT(outcomesIn(facts), ElementsAre("absent", "absent", "absent", "absent", "noSource"));
  const Value& row = (*facts[kFactSwitches].array())[0];
  EXPECT_EQ(row[kFactCurrent], Value());
  EXPECT_NEAR(row[kFactCurrentAge].real().value_or(0), 4, 1);
}

TEST_F(SlowSwitchesTest, ASlowServerIsNotTakenForAHungOne) {
  startAllWithin(15ms);
  facts();
  time_ = kHangs;
  facts();
  EXPECT_EQ(taken_, 40ms);
}

TEST_F(SlowSwitchesTest, AServerThatHungLatelyGetsLessTime) {
  startAllWithin(0ms);
  time_ = kHangs;
  facts();
  EXPECT_EQ(taken_, 40ms);
  facts();
  EXPECT_EQ(taken_, 20ms);
  loop_.sleepFor(30s);
  facts();
  EXPECT_EQ(taken_, 40ms);
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
