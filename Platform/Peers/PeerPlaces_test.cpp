#include "Platform/Peers/PeerPlaces.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

constexpr std::uint32_t kRoot = 0;
constexpr std::uint32_t kOwn = 500;
constexpr std::uint32_t kAnna = 1000;
constexpr std::uint32_t kBen = 1001;

class PeerPlacesTest : public testing::Test {
 protected:
  // There are four places, one of them reserved.
  bool take(std::uint32_t user, const std::string& name) {
    auto place = places_->take(user, [this, name] { out_.push_back(name); });
    if (!place) return false;
    held_.emplace_back(name, std::move(place));
    return true;
  }
  void give(const std::string& name) {
    std::erase_if(held_, [&](const auto& held) { return held.first == name; });
  }

  std::shared_ptr<PeerPlaces> places_ = std::make_shared<PeerPlaces>(kOwn, 4, 1);
  std::vector<std::string> out_;
  std::vector<std::pair<std::string, std::unique_ptr<PeerPlaces::Place>>> held_;
};

TEST_F(PeerPlacesTest, TheUserWithTheMostPlacesLosesItsOldest) {
  EXPECT_TRUE(take(kBen, "ben"));
  EXPECT_TRUE(take(kAnna, "first"));
  EXPECT_TRUE(take(kAnna, "second"));
  EXPECT_TRUE(out_.empty());
  EXPECT_TRUE(take(kAnna, "third"));
  EXPECT_EQ(out_, std::vector<std::string>{"first"});
  // The same if a user with fewer places comes.
  EXPECT_TRUE(take(2000, "stranger"));
  EXPECT_EQ(out_, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(places_->taken(), 3u);
}

TEST_F(PeerPlacesTest, IfAllHaveOneTheOldestIsPushedOut) {
  for (const std::uint32_t user : {kAnna, kBen, 2000u, 3000u}) {
    EXPECT_TRUE(take(user, std::to_string(user)));
  }
  EXPECT_EQ(out_, std::vector<std::string>{"1000"});
}

TEST_F(PeerPlacesTest, ANewcomerWithAsManyAsAnotherLosesItsOwnPlace) {
  EXPECT_TRUE(take(kBen, "ben 1"));
  EXPECT_TRUE(take(kBen, "ben 2"));
  EXPECT_TRUE(take(kAnna, "anna 1"));
  EXPECT_TRUE(take(kAnna, "anna 2"));
  EXPECT_EQ(out_, std::vector<std::string>{"anna 1"});
}

TEST_F(PeerPlacesTest, SomePlacesAreReservedForRootAndOurOwnUser) {
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(take(kAnna, "anna " + std::to_string(i)));
  EXPECT_TRUE(take(kRoot, "root"));
  EXPECT_TRUE(out_.empty());
  EXPECT_EQ(places_->taken(), 4u);
  EXPECT_TRUE(take(kOwn, "own"));
  EXPECT_EQ(out_, std::vector<std::string>{"anna 0"});
}

TEST_F(PeerPlacesTest, AnOrdinaryUserNeverPushesOutAPrivilegedOne) {
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(take(kRoot, "root " + std::to_string(i)));
  EXPECT_TRUE(take(kAnna, "anna"));
  EXPECT_TRUE(take(kBen, "ben"));
  EXPECT_EQ(out_, std::vector<std::string>{"anna"});
  give("ben");
  EXPECT_TRUE(take(kOwn, "own"));
  EXPECT_FALSE(take(kAnna, "nowhere"));
  EXPECT_TRUE(take(kRoot, "root 3"));
  EXPECT_EQ(out_, (std::vector<std::string>{"anna", "root 0"}));
}

TEST_F(PeerPlacesTest, TheNumbersOfPlacesAreTheLimits) {
  places_ = std::make_shared<PeerPlaces>(kOwn);
  constexpr std::size_t kForAll = kPeerPlaces - kReservedPeerPlaces;
  for (std::size_t i = 0; i < kForAll - 1; ++i) EXPECT_TRUE(take(kAnna, std::to_string(i)));
  EXPECT_TRUE(take(kAnna, "last"));
  EXPECT_TRUE(out_.empty());
  EXPECT_TRUE(take(kAnna, "one more"));
  EXPECT_EQ(out_, std::vector<std::string>{"0"});

  for (std::size_t i = 0; i < kReservedPeerPlaces; ++i) EXPECT_TRUE(take(kRoot, "root"));
  EXPECT_EQ(out_.size(), 1u);
  EXPECT_EQ(places_->taken(), kPeerPlaces);
  EXPECT_TRUE(take(kRoot, "one more"));
  EXPECT_EQ(out_, (std::vector<std::string>{"0", "1"}));
  EXPECT_EQ(places_->taken(), kPeerPlaces);
}

TEST_F(PeerPlacesTest, ADroppedPlaceIsFree) {
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(take(kAnna, "anna " + std::to_string(i)));
  give("anna 1");
  EXPECT_TRUE(take(kAnna, "anna 3"));
  EXPECT_TRUE(out_.empty());
}

TEST_F(PeerPlacesTest, APlaceOutlivesTheListener) {
  EXPECT_TRUE(take(kAnna, "anna"));
  places_.reset();
  held_.clear();
  EXPECT_TRUE(out_.empty());
}

}  // namespace
}  // namespace platform
