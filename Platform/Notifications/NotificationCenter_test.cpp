#include "Platform/Notifications/NotificationCenter.h"

#include <optional>

#include <gtest/gtest.h>

namespace platform {
namespace {

class NotificationCenterTest : public testing::Test {
 protected:
  NotificationCenter::Handler record(std::string who) {
    return [this, who](const Notification& notification) {
      delivered_.push_back(who + ":" + notification.name);
    };
  }

  NotificationCenter center_;
  std::vector<std::string> delivered_;
};

TEST_F(NotificationCenterTest, APostIsDeliveredByNameBeforeItReturns) {
  const auto b = center_.addObserver("died", nullptr, record("b"));
  const auto a = center_.addObserver("died", nullptr, record("a"));
  const auto other = center_.addObserver("opened", nullptr, record("other"));
  center_.post({.name = "died"});
  EXPECT_EQ(delivered_, (std::vector<std::string>{"b:died", "a:died"}));
}

TEST_F(NotificationCenterTest, AnObserverOfAnObjectReceivesNoOtherPosts) {
  int one = 0;
  int two = 0;
  const auto ofOne = center_.addObserver("died", &one, record("one"));
  const auto ofAny = center_.addObserver("died", nullptr, record("any"));
  center_.post({.name = "died", .object = &two});
  EXPECT_EQ(delivered_, (std::vector<std::string>{"any:died"}));
  center_.post({.name = "died", .object = &one});
  EXPECT_EQ(delivered_.size(), 3u);
}

TEST_F(NotificationCenterTest, CarriesTheUserInformation) {
  Value seen;
  const auto observation = center_.addObserver(
      "n", nullptr, [&seen](const Notification& notification) { seen = notification.userInfo; });
  center_.post({.name = "n", .userInfo = Value(Dictionary{{"key", 1}})});
  EXPECT_EQ(seen["key"], Value(1));
}

TEST_F(NotificationCenterTest, NothingIsDeliveredAfterTheObservationEnds) {
  {
    const auto observation = center_.addObserver("n", nullptr, record("gone"));
  }
  center_.post({.name = "n"});
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(NotificationCenterTest, AHandlerMayEndItsOwnObservation) {
  std::optional<NotificationCenter::Observation> own;
  int calls = 0;
  own = center_.addObserver("n", nullptr, [&](const Notification&) {
    ++calls;
    own.reset();
  });
  center_.post({.name = "n"});
  center_.post({.name = "n"});
  EXPECT_EQ(calls, 1);
}

TEST_F(NotificationCenterTest, AnObserverRemovedBeforeItsTurnIsNotCalled) {
  std::optional<NotificationCenter::Observation> later;
  const auto first = center_.addObserver("n", nullptr, [&](const Notification&) { later.reset(); });
  later = center_.addObserver("n", nullptr, record("later"));
  center_.post({.name = "n"});
  EXPECT_TRUE(delivered_.empty());
}

TEST_F(NotificationCenterTest, AnObserverAddedDuringAPostReceivesOnlyTheNext) {
  std::optional<NotificationCenter::Observation> added;
  const auto first = center_.addObserver("n", nullptr, [&](const Notification&) {
    if (!added) added = center_.addObserver("n", nullptr, record("added"));
  });
  center_.post({.name = "n"});
  EXPECT_TRUE(delivered_.empty());
  center_.post({.name = "n"});
  EXPECT_EQ(delivered_, (std::vector<std::string>{"added:n"}));
}

TEST(NotificationCenterLifetimeTest, AnObservationMayOutliveItsCenter) {
  std::optional<NotificationCenter> center(std::in_place);
  const auto observation = center->addObserver("n", nullptr, [](const Notification&) {});
  center.reset();
}

}  // namespace
}  // namespace platform
