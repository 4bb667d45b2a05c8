#include "Platform/Peers/PeerTurns.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using testing::ElementsAre;

class PeerTurnsTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kOwnUser = 900;
  static constexpr std::uint32_t kAnna = 1000;
  static constexpr std::uint32_t kBen = 1001;

  void request(std::uint32_t user, std::string name) {
    turns_->request(user, [this, name = std::move(name)] {
      taken_.push_back(name);
      return true;
    });
  }
  // As a connection does that has ended meanwhile.
  void requestNothing(std::uint32_t user) {
    turns_->request(user, [] { return false; });
  }

  VirtualRunLoop loop_;
  std::shared_ptr<PeerTurns> turns_ = std::make_shared<PeerTurns>(loop_, kOwnUser);
  std::vector<std::string> taken_;
};

TEST_F(PeerTurnsTest, UsersTakeTurns) {
  for (const char* name : {"a1", "a2", "a3"}) request(kAnna, name);
  for (const char* name : {"b1", "b2"}) request(kBen, name);
  EXPECT_THAT(taken_, ElementsAre());
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("a1", "b1", "a2", "b2", "a3"));
}

TEST_F(PeerTurnsTest, RootAndTheOwnUserGetEverySecondTurn) {
  for (const char* name : {"a1", "a2"}) request(kAnna, name);
  for (const char* name : {"b1", "b2"}) request(kBen, name);
  request(0, "root");
  request(kOwnUser, "own");
  request(0, "root again");
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("root", "a1", "own", "b1", "root again", "a2", "b2"));
}

TEST_F(PeerTurnsTest, ATurnMayRequestTheNext) {
  turns_->request(kAnna, [this] {
    request(kAnna, "later");
    return true;
  });
  request(kBen, "ben");
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("ben", "later"));
}

// A user with any number of waiting turns delays others by one.
TEST_F(PeerTurnsTest, AFloodDelaysOthersByOneTurn) {
  for (int i = 0; i < 1000; ++i) request(kAnna, "flood");
  request(kBen, "ben");
  loop_.runReady();
  EXPECT_EQ(taken_[1], "ben");
}

TEST_F(PeerTurnsTest, OtherPostsComeBetweenTurns) {
  for (const char* name : {"a1", "a2"}) request(kAnna, name);
  loop_.post([this] { taken_.push_back("post"); });
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("a1", "post", "a2"));
}

TEST_F(PeerTurnsTest, ATurnThatDoesNothingDelaysNobody) {
  for (int i = 0; i < 1000; ++i) requestNothing(kAnna);
  request(kAnna, "a1");
  request(kBen, "b1");
  loop_.post([this] { taken_.push_back("post"); });
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("a1", "post", "b1"));
}

TEST_F(PeerTurnsTest, ATurnThatDoesNothingIsNotTheTurnOfItsUser) {
  requestNothing(0);
  request(0, "root");
  requestNothing(kAnna);
  request(kAnna, "a1");
  request(kBen, "b1");
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("root", "a1", "b1"));
}

TEST_F(PeerTurnsTest, OnlyTurnsThatDoNothingEndTheLoop) {
  for (int i = 0; i < 3; ++i) requestNothing(kAnna);
  loop_.runReady();
  request(kBen, "b1");
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre("b1"));
}

TEST_F(PeerTurnsTest, TheEndDropsTurns) {
  request(kAnna, "a1");
  turns_.reset();
  loop_.runReady();
  EXPECT_THAT(taken_, ElementsAre());
}

}  // namespace
}  // namespace platform
