#include "ServiceManager/ServiceManager/ChangeRequests.h"

#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class ChangeRequestsTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kOwnUser = 900;
  static constexpr std::uint32_t kUser = 1000;

  std::size_t accepted(std::uint32_t user, std::size_t requests) {
    std::size_t count = 0;
    for (std::size_t i = 0; i < requests; ++i) count += requests_.refusalOf(user) ? 0 : 1;
    return count;
  }

  Logger2Lines lines_;
  VirtualRunLoop loop_;
  bool mayLog_ = true;
  ChangeRequests requests_{loop_, kOwnUser, [this](std::uint32_t) { return mayLog_; }};
};

TEST_F(ChangeRequestsTest, AUsersRequestsOfAMinuteAreLimited) {
  EXPECT_EQ(accepted(kUser, 1000), ChangeRequests::kOfUser);
  loop_.advanceBy(ChangeRequests::kPeriod - 1ns);
  EXPECT_EQ(accepted(kUser, 1), 0u);
  EXPECT_EQ(accepted(kUser + 1, 1), 1u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(accepted(kUser, 1), 1u);
}

TEST_F(ChangeRequestsTest, AllUsersTogetherAreLimited) {
  std::size_t count = 0;
  for (std::uint32_t user = kUser; user < kUser + 1000; ++user) count += accepted(user, 1);
  EXPECT_EQ(count, ChangeRequests::kOfAll);
}

TEST_F(ChangeRequestsTest, RootAndTheOwnUserHaveNoLimit) {
  EXPECT_EQ(accepted(0, 1000), 1000u);
  EXPECT_EQ(accepted(kOwnUser, 1000), 1000u);
}

TEST_F(ChangeRequestsTest, ARefusalIsAnExceptionAndALine) {
  accepted(kUser, ChangeRequests::kOfUser);
  lines_.take();
  const auto refusal = requests_.refusalOf(kUser);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->name, kNSInvalidArgumentException);
  EXPECT_THAT(
      lines_.take(),
      testing::ElementsAre("4 Refused a request of user 1000: too many changes of services."));
  mayLog_ = false;
  EXPECT_TRUE(requests_.refusalOf(kUser));
  EXPECT_THAT(lines_.take(), testing::IsEmpty());
}

TEST_F(ChangeRequestsTest, NoNecessaryRequestIsLost) {
  std::size_t performed = 0;
  const auto perform = [&](std::uint32_t user, std::size_t requests) {
    for (std::size_t i = 0; i < requests; ++i) requests_.performOf(user, [&] { ++performed; });
    return std::exchange(performed, 0);
  };
  EXPECT_EQ(perform(kUser, 1000), ChangeRequests::kOfUser);
  EXPECT_EQ(perform(0, 1000), 1000u);
  loop_.advanceBy(ChangeRequests::kPeriod - 1ns);
  EXPECT_EQ(std::exchange(performed, 0), 0u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(std::exchange(performed, 0), 1u);
  EXPECT_EQ(perform(kUser, 1000), ChangeRequests::kOfUser);
  loop_.advanceBy(ChangeRequests::kPeriod);
  EXPECT_EQ(performed, 1u);
}

TEST_F(ChangeRequestsTest, ADelayedRequestCanBeForgotten) {
  std::size_t performed = 0;
  const auto exceedLimit = [&] {
    for (std::size_t i = 0; i <= ChangeRequests::kOfUser; ++i)
      requests_.performOf(kUser, [&] { ++performed; });
  };
  exceedLimit();
  requests_.forgetDelayed();
  loop_.advanceBy(ChangeRequests::kPeriod);
  EXPECT_EQ(performed, ChangeRequests::kOfUser);
  exceedLimit();
  loop_.advanceBy(ChangeRequests::kPeriod);
  EXPECT_EQ(performed, 2 * ChangeRequests::kOfUser + 1);
}

// The daemon's own calls serve nobody's request.
TEST_F(ChangeRequestsTest, WithoutARequestNothingIsRefused) {
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(requests_.refusal());
  int performed = 0;
  for (int i = 0; i < 1000; ++i) requests_.perform([&] { ++performed; });
  EXPECT_EQ(performed, 1000);
}

}  // namespace
