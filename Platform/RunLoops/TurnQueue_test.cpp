#include "Platform/RunLoops/TurnQueue.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class TurnQueueTest : public testing::Test {
 protected:
  RunLoop::Callback note(const char* name) {
    return [this, name] { ran_.emplace_back(name); };
  }

  VirtualRunLoop loop_;
  std::vector<std::string> ran_;
  std::optional<TurnQueue> turns_{std::in_place, loop_, note("empty")};
};

TEST_F(TurnQueueTest, PiecesRunInTheirOrderAndNoneAtOnce) {
  turns_->add(note("first"));
  turns_->add({"evaluate", "agent"}, note("second"));
  turns_->add(note("third"));
  EXPECT_THAT(ran_, IsEmpty());
  EXPECT_EQ(turns_->waiting(), 3u);
  loop_.runReady();
  EXPECT_THAT(ran_, ElementsAre("first", "second", "third", "empty"));
}

TEST_F(TurnQueueTest, OthersAreServedBetweenPieces) {
  for (const char* name : {"first", "second", "third"}) {
    turns_->add([this, name] {
      ran_.emplace_back(name);
      loop_.post(note("post"));
    });
  }
  loop_.runReady();
  const auto place = [this](const char* name) { return std::ranges::find(ran_, name); };
  EXPECT_LT(place("first"), place("post"));
  EXPECT_LT(place("post"), place("third"));
}

TEST_F(TurnQueueTest, APieceThatWaitsStandsForAllOfItsKey) {
  turns_->add({"evaluate", "agent"}, note("agent"));
  turns_->add({"evaluate", "helper"}, note("helper"));
  turns_->add({"evaluate", "agent"}, note("agent again"));
  turns_->add({"retry", "agent"}, note("retry"));
  EXPECT_EQ(turns_->waiting(), 3u);
  loop_.runReady();
  EXPECT_THAT(ran_, ElementsAre("agent", "helper", "retry", "empty"));
}

TEST_F(TurnQueueTest, APieceThatRunsStandsForNoOther) {
  turns_->add({"evaluate", "agent"}, [this] {
    ran_.emplace_back("first");
    turns_->add({"evaluate", "agent"}, note("second"));
  });
  loop_.runReady();
  EXPECT_THAT(ran_, ElementsAre("first", "second", "empty"));
}

TEST_F(TurnQueueTest, TheEndMayAddMore) {
  int rounds = 0;
  turns_.emplace(loop_, [&] {
    if (++rounds < 3) turns_->add(note("more"));
  });
  turns_->add(note("first"));
  loop_.runReady();
  EXPECT_EQ(rounds, 3);
  EXPECT_THAT(ran_, ElementsAre("first", "more", "more"));
}

TEST_F(TurnQueueTest, PiecesEndWithTheirQueue) {
  const auto held = std::make_shared<int>();  // Owned by the piece and this test.
  turns_->add([held] {});
  turns_->add(note("second"));
  turns_.reset();
  EXPECT_EQ(held.use_count(), 1);
  loop_.runReady();
  EXPECT_THAT(ran_, IsEmpty());
}

}  // namespace
}  // namespace platform
