#include "ServiceManager/ServiceManager/OperatorEvents.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using EventKind = OperatorEvent::Kind;

class OperatorEventsTest : public testing::Test {
 protected:
  void addServices(std::int64_t count) {
    for (std::int64_t i = 1; i <= count; ++i)
      events_.add({.kind = EventKind::kService, .subject = "agent", .number = i});
  }
  static std::size_t countIn(const Value& answer) { return answer[kFactEvents].array()->size(); }

  OperatorEvents events_;
};

TEST_F(OperatorEventsTest, EachIsToldOnceInOrder) {
  addServices(3);
  const Value first = events_.after(0, 2);
  EXPECT_EQ(countIn(first), 2u);
  EXPECT_EQ((*first[kFactEvents].array())[0][kFactEventProcess], Value(1));
  EXPECT_EQ(first[kFactLastEvent], Value(2));
  EXPECT_EQ(first[kFactMissedEvents], Value(0));
  const Value rest = events_.after(2, 2);
  EXPECT_EQ((*rest[kFactEvents].array())[0][kFactEventProcess], Value(3));
  EXPECT_EQ(rest[kFactLastEvent], Value(3));
  EXPECT_EQ(countIn(events_.after(3, 2)), 0u);
}

TEST_F(OperatorEventsTest, ForgottenEventsAreCounted) {
  addServices(static_cast<std::int64_t>(OperatorEvents::kMost) + 5);
  const Value answer = events_.after(2, 1);
  EXPECT_EQ(answer[kFactMissedEvents], Value(3));
  EXPECT_EQ((*answer[kFactEvents].array())[0][kFactEventProcess], Value(6));
  EXPECT_EQ(answer[kFactLastEvent], Value(6));
}

TEST_F(OperatorEventsTest, ANumberOfAnotherRunIsFollowedByAll) {
  OperatorEvents events(WallTime(std::chrono::microseconds(100)));
  EXPECT_EQ(events.last(), 100);
  events.add({.kind = EventKind::kMode});
  events.add({.kind = EventKind::kMode});
  for (const std::int64_t number : {0, 99, 103}) {
    const Value answer = events.after(number, 10);
    EXPECT_EQ(countIn(answer), 2u);
    EXPECT_EQ(answer[kFactMissedEvents], Value(0));
    EXPECT_EQ(answer[kFactLastEvent], Value(102));
  }
}

TEST_F(OperatorEventsTest, TheCallbackRunsOnce) {
  int calls = 0;
  events_.whenAdded([&calls] { ++calls; });
  addServices(2);
  EXPECT_EQ(calls, 1);
}

TEST_F(OperatorEventsTest, ALongKeyIsCutBetweenCharacters) {
  std::string key(OperatorEvents::kMostTextBytes - 1, 'k');
  events_.add({.kind = EventKind::kSettings, .subject = key + "é"});
  EXPECT_EQ((*events_.after(0, 1)[kFactEvents].array())[0][kFactKey], Value(key));
}

TEST_F(OperatorEventsTest, ALongKeyTakesTheMemoryOfAShortOne) {
  const std::string kept = OperatorEvents::shortened(std::string(64 * 1024, 'k'));
  EXPECT_EQ(kept, std::string(OperatorEvents::kMostTextBytes, 'k'));
  EXPECT_LE(kept.capacity(), 2 * OperatorEvents::kMostTextBytes);
}

TEST(OperatorEventFacts, EachKindHasItsFacts) {
  EXPECT_EQ(factsOf({.kind = EventKind::kSettings})[kFactEvent], Value("settings"));
  EXPECT_TRUE(factsOf({.kind = EventKind::kSettings})[kFactKey].isNil());
  EXPECT_EQ(factsOf({.kind = EventKind::kMode, .number = 2})[kFactOperatingMode], Value(2));
  EXPECT_EQ(factsOf({.kind = EventKind::kInstaller, .number = 1})[kFactIsInstallerAtWork],
            Value(true));
  EXPECT_EQ(factsOf({.kind = EventKind::kExtension,
                     .subject = "wfk",
                     .step = "isNotLoaded"})[kFactKextFailedStep],
            Value("isNotLoaded"));
  EXPECT_EQ(factsOf({.kind = EventKind::kEvaluation, .subject = "a"})[kFactEventIsWanted],
            Value(false));
  EXPECT_TRUE(factsOf({.kind = EventKind::kService, .subject = "a"})[kFactEventProcess].isNil());
}

}  // namespace
