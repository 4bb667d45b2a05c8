#include "Platform/XPC/WaitingMessages.h"

#include <memory>

#include <gtest/gtest.h>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

struct Endpoint final : NSXPCListenerEndpoint {
  bool hasListener() const override { return true; }
};

Value endpoint() { return Value(std::shared_ptr<const RemoteObject>(new Endpoint)); }

TEST(WaitingMessagesTest, NestedEndpointsAreCounted) {
  EXPECT_EQ(costOfWaiting({}).descriptors, 0U);
  EXPECT_EQ(costOfWaiting({Value("name"), Value(Data(4))}).descriptors, 0U);
  EXPECT_EQ(costOfWaiting({endpoint(), Value(Array{endpoint(), Value(1)}),
                           Value(Dictionary{{"a", Array{endpoint()}}})})
                .descriptors,
            3U);
  EXPECT_GT(costOfWaiting({Value(Data(1000))}).bytes, 1000U);
}

TEST(WaitingMessagesTest, SmallValuesCostTheirMemory) {
  EXPECT_GT(costOfWaiting({Value(Array(1000, Value(true)))}).bytes, 100'000U);
}

// A peer may use an encoding for values that ours would make too large. They must still count.
TEST(WaitingMessagesTest, AMessageTooLargeToMeasureHasTheMaximumCost) {
  const Data measured(kMaxPeerMemoryFileBytes - 2000);
  EXPECT_GT(costOfWaiting({Value(measured)}).bytes, measured.size());
  EXPECT_LT(costOfWaiting({Value(measured)}).bytes, kMaxPeerMemoryFileBytes);
  const Data unmeasured(kMaxPeerMemoryFileBytes - 600);
  EXPECT_EQ(costOfWaiting({Value(unmeasured)}).bytes, kMaxPeerMemoryFileBytes);
}

TEST(WaitingMessagesTest, AMessageWithoutArgumentsCostsNothing) {
  EXPECT_EQ(costOfWaiting({}).bytes, 0U);
}

}  // namespace
}  // namespace platform
