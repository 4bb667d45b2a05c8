#include "Platform/Peers/PeerAccounts.h"

#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

class PeerAccountsTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kOwnUser = 900;
  static constexpr std::uint32_t kAnna = 1000;
  static constexpr std::uint32_t kBert = 1001;
  static constexpr std::uint32_t kCarl = 1002;
  static constexpr PeerAccounts::Limits kLimits{
      .user = {.connections = 2, .descriptors = 20, .bytes = 4'000'000, .calls = 3},
      .all = {.connections = 3, .descriptors = 30, .bytes = 6'000'000, .calls = 4}};

  std::shared_ptr<PeerAccounts> accounts_ = std::make_shared<PeerAccounts>(kOwnUser, kLimits);
};

TEST_F(PeerAccountsTest, AUserTakesUpToItsLimitOfEachKind) {
  for (const PeerCost& most : {PeerCost{.connections = 2}, PeerCost{.descriptors = 20},
                               PeerCost{.bytes = 4'000'000}, PeerCost{.calls = 3}}) {
    const auto held = accounts_->take(kAnna, most);
    ASSERT_TRUE(held);
    EXPECT_FALSE(accounts_->take(kAnna, most));
  }
  EXPECT_EQ(accounts_->taken(), PeerCost());
}

TEST_F(PeerAccountsTest, AllUsersTogetherAreLimited) {
  const auto anna = accounts_->take(kAnna, {.connections = 2});
  const auto bert = accounts_->take(kBert, {.connections = 1});
  ASSERT_TRUE(anna && bert);
  EXPECT_FALSE(accounts_->take(kCarl, {.connections = 1}));
}

TEST_F(PeerAccountsTest, RootAndTheOwnUserHaveNoLimit) {
  const PeerCost much{.connections = 1000, .descriptors = 1000, .bytes = 1000 << 20, .calls = 1000};
  const auto root = accounts_->take(0, much);
  const auto own = accounts_->take(kOwnUser, much);
  ASSERT_TRUE(root && own);
  EXPECT_EQ(own->bytesLeft(), std::numeric_limits<std::size_t>::max());
  EXPECT_TRUE(accounts_->take(kAnna, {.connections = 2}));
}

TEST_F(PeerAccountsTest, AChangeBeyondALimitChangesNothing) {
  const auto held = accounts_->take(kAnna, {.connections = 1, .bytes = 1'000'000});
  EXPECT_FALSE(held->change({.connections = 1, .bytes = 4'000'001}));
  EXPECT_EQ(accounts_->taken(), (PeerCost{.connections = 1, .bytes = 1'000'000}));
  EXPECT_EQ(held->bytesLeft(), 3'000'000u);
  EXPECT_TRUE(held->change({.connections = 1, .bytes = 4'000'000}));
  EXPECT_EQ(held->bytesLeft(), 0u);
}

// A limit that others have reached does not keep a user from giving back.
TEST_F(PeerAccountsTest, LessOfOneKindIsAlwaysPossible) {
  const auto anna = accounts_->take(kAnna, {.bytes = 4'000'000});
  const auto bert = accounts_->take(kBert, {.bytes = 2'000'000, .calls = 1});
  EXPECT_TRUE(bert->change({.bytes = 2'000'000}));
  EXPECT_TRUE(anna->change({.bytes = 3'999'999}));
  EXPECT_EQ(bert->bytesLeft(), 1u);
}

TEST_F(PeerAccountsTest, EverythingIsGivenBackAtTheEnd) {
  auto held = accounts_->take(kAnna, {.connections = 2, .calls = 3});
  held.reset();
  EXPECT_EQ(accounts_->taken(), PeerCost());
  EXPECT_TRUE(accounts_->take(kAnna, {.connections = 2}));
}

TEST_F(PeerAccountsTest, AHolderMayOutliveTheOwner) {
  const auto held = accounts_->take(kAnna, {.connections = 1});
  accounts_.reset();
  EXPECT_TRUE(held->change({}));
}

TEST_F(PeerAccountsTest, ReliefIsReportedWhenMuchIsGivenBack) {
  int reliefs = 0;
  accounts_->setReliefHandler([&] { ++reliefs; });
  auto much = accounts_->take(kAnna, {.bytes = 4'000'000});
  const auto little = accounts_->take(kBert, {.bytes = 1000});
  EXPECT_EQ(reliefs, 0);
  much.reset();
  EXPECT_EQ(reliefs, 1);
  accounts_->take(kAnna, {.bytes = 1000}).reset();
  EXPECT_EQ(reliefs, 1);
}

TEST_F(PeerAccountsTest, DescriptorsAreSharesOfTheLimit) {
  const PeerAccounts::Limits limits = PeerAccounts::limitsFor(1024);
  EXPECT_EQ(limits.user.descriptors, 256u);
  EXPECT_EQ(limits.all.descriptors, 512u);
  EXPECT_GT(limits.user.bytes, kMaxPeerMessageBytes);
}

TEST_F(PeerAccountsTest, ThreadsMayTakeAtOnce) {
  const auto accounts = std::make_shared<PeerAccounts>(
      kOwnUser, PeerAccounts::Limits{.user = {.calls = 100}, .all = {.calls = 150}});
  std::vector<std::thread> threads;
  for (std::uint32_t user = kAnna; user < kAnna + 4; ++user) {
    threads.emplace_back([&accounts, user] {
      for (int i = 0; i < 10'000; ++i) {
        const auto held = accounts->take(user, {.calls = 60});
        if (held) held->change({.calls = 30});
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(accounts->taken(), PeerCost());
}

}  // namespace
}  // namespace platform
