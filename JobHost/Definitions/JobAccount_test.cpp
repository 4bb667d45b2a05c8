#include "JobHost/Definitions/JobAccount.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace jobhost {
namespace {

using platform::DescriptorShortage;
using platform::ErrorCode;

TEST(JobAccountTest, AnUnknownUserIsNotFound) {
  const auto account = lookUpAccount("no-such-user", {});
  ASSERT_FALSE(account);
  EXPECT_EQ(account.error().code, ErrorCode::kNotFound);
}

// The user may well exist.
TEST(JobAccountTest, AUserIsNotUnknownIfTheLookupFails) {
  const auto account = [] {
    const DescriptorShortage shortage(DescriptorShortage::Left::kNone);
    return lookUpAccount("no-such-user", {});
  }();
  ASSERT_FALSE(account);
  EXPECT_EQ(account.error().code, ErrorCode::kSystem);
  EXPECT_EQ(account.error().osError, EMFILE);
}

}  // namespace
}  // namespace jobhost
