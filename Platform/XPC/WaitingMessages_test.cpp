#include "Platform/XPC/WaitingMessages.h"

#include <vector>

#include <gtest/gtest.h>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"
#include "Platform/SystemFacts/CurrentUser.h"

namespace platform {
namespace {

using Cost = WaitingMessages::Cost;

struct Endpoint final : NSXPCListenerEndpoint {
  bool hasListener() const override { return true; }
};

Value endpoint() { return Value(std::shared_ptr<const RemoteObject>(new Endpoint)); }

class WaitingMessagesTest : public testing::Test {
 protected:
  // A user who is neither root nor ours.
  const std::uint32_t user_ = currentEffectiveUserId() + 1;
  const std::shared_ptr<WaitingMessages> messages_ = std::make_shared<WaitingMessages>();
};

TEST_F(WaitingMessagesTest, NestedEndpointsAreCounted) {
  EXPECT_EQ(WaitingMessages::costOf({}).endpoints, 0U);
  EXPECT_EQ(WaitingMessages::costOf({Value("name"), Value(Data(4))}).endpoints, 0U);
  EXPECT_EQ(WaitingMessages::costOf({endpoint(), Value(Array{endpoint(), Value(1)}),
                                     Value(Dictionary{{"a", Array{endpoint()}}})})
                .endpoints,
            3U);
  EXPECT_GT(WaitingMessages::costOf({Value(Data(1000))}).bytes, 1000U);
}

// A peer may use an encoding for values that ours would make too large. They must still count.
TEST_F(WaitingMessagesTest, AMessageTooLargeToMeasureHasTheMaximumCost) {
  const Data measured(kMaxPeerMemoryFileBytes - 2000);
  EXPECT_GT(WaitingMessages::costOf({Value(measured)}).bytes, measured.size());
  EXPECT_LT(WaitingMessages::costOf({Value(measured)}).bytes, kMaxPeerMemoryFileBytes);
  const Data unmeasured(kMaxPeerMemoryFileBytes - 600);
  EXPECT_EQ(WaitingMessages::costOf({Value(unmeasured)}).bytes, kMaxPeerMemoryFileBytes);
}

TEST_F(WaitingMessagesTest, TheEndpointsOfAUserAreLimited) {
  constexpr std::size_t kMost = WaitingMessages::kMaxEndpointsPerUser;
  auto first = messages_->take(user_, {1, kMost - 1});
  const auto last = messages_->take(user_, {1, 1});
  ASSERT_TRUE(first && last);
  EXPECT_FALSE(messages_->take(user_, {1, 1}));
  EXPECT_TRUE(messages_->take(user_, {1, 0}));
  EXPECT_TRUE(messages_->take(user_ + 1, {1, kMost}));
  first.reset();
  EXPECT_TRUE(messages_->take(user_, {1, kMost - 1}));
  EXPECT_FALSE(messages_->take(user_, {1, kMost}));
}

TEST_F(WaitingMessagesTest, TheBytesOfAUserAreLimited) {
  constexpr std::size_t kMost = WaitingMessages::kMaxBytesPerUser;
  auto first = messages_->take(user_, {kMost - 1, 0});
  const auto last = messages_->take(user_, {1, 0});
  ASSERT_TRUE(first && last);
  EXPECT_FALSE(messages_->take(user_, {1, 0}));
  first.reset();
  EXPECT_TRUE(messages_->take(user_, {1, 0}));
}

TEST_F(WaitingMessagesTest, RootAndOurOwnUserHaveNoLimit) {
  for (const std::uint32_t user : {std::uint32_t{0}, currentEffectiveUserId()}) {
    const Cost most{WaitingMessages::kMaxBytesPerUser, WaitingMessages::kMaxEndpointsPerUser};
    const auto first = messages_->take(user, most);
    EXPECT_TRUE(messages_->take(user, most));
  }
}

TEST_F(WaitingMessagesTest, MessagesWithoutArgumentsCostNothing) {
  std::vector<std::unique_ptr<WaitingMessages::Place>> places;
  for (int i = 0; i < 3; ++i) places.push_back(messages_->take(user_, {}));
  places.clear();
  EXPECT_TRUE(messages_->take(user_, {}));
}

TEST_F(WaitingMessagesTest, APlaceMayOutliveTheCounter) {
  auto messages = std::make_shared<WaitingMessages>();
  const auto place = messages->take(user_, {1, 1});
  messages.reset();
}

}  // namespace
}  // namespace platform
