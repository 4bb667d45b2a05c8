#pragma once

// The contract of every Authorization. A test program derives an office from AuthorizationOffice
// and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, AuthorizationContract, testing::Values(&makeFakeOffice));

#include <array>
#include <memory>
#include <string_view>

#include <gtest/gtest.h>

#include "Platform/Jobs/Authorization.h"

namespace platform {

// Grants rights to the caller unless it is told to refuse it.
class AuthorizationOffice {
 public:
  virtual ~AuthorizationOffice() = default;

  virtual Authorization& authorization() = 0;
  // Makes the grantor of rights reachable, or unreachable.
  virtual void open() = 0;
  virtual void close() = 0;
};

class AuthorizationContract
    : public testing::TestWithParam<std::unique_ptr<AuthorizationOffice> (*)()> {
 protected:
  // The flags that the system uses.
  static constexpr AuthorizationFlags kFlags =
      kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize;

  std::unique_ptr<AuthorizationRef> create() {
    auto created = authorization_.AuthorizationCreate(kAuthorizationFlagDefaults);
    EXPECT_TRUE(created) << created.error();
    return created ? *std::move(created) : nullptr;
  }

  OSStatus ask(AuthorizationRef& reference, std::string_view right,
               AuthorizationFlags flags = kFlags) {
    return authorization_.AuthorizationCopyRights(reference, std::array{right}, flags);
  }

  std::unique_ptr<AuthorizationOffice> office_ = GetParam()();
  Authorization& authorization_ = office_->authorization();
};

TEST_P(AuthorizationContract, TheRightToChangeJobsIsGranted) {
  static_assert(kFlags == 18);
  const auto reference = create();
  ASSERT_TRUE(reference);
  EXPECT_EQ(ask(*reference, "com.apple.ServiceManagement.daemons.modify"), 0);
}

TEST_P(AuthorizationContract, AnUnknownRightIsDenied) {
  const auto reference = create();
  ASSERT_TRUE(reference);
  EXPECT_EQ(ask(*reference, "system.privilege.admin"), -60005);
  EXPECT_EQ(ask(*reference, ""), -60005);
  EXPECT_EQ(authorization_.AuthorizationCopyRights(
                *reference, std::array<std::string_view, 2>{kSMRightModifySystemDaemons, "another"},
                kFlags),
            -60005);
}

TEST_P(AuthorizationContract, ARightIsOnlyAddedWithTheFlag) {
  const auto reference = create();
  ASSERT_TRUE(reference);
  EXPECT_EQ(ask(*reference, kSMRightModifySystemDaemons, kAuthorizationFlagPreAuthorize), -60005);
}

TEST_P(AuthorizationContract, WithoutAGrantorNoAuthorizationIsCreated) {
  office_->close();
  const auto created = authorization_.AuthorizationCreate(kAuthorizationFlagDefaults);
  ASSERT_FALSE(created);
  EXPECT_GT(created.error(), kErrnoStatusBase);
  office_->open();
  EXPECT_TRUE(create());
}

TEST_P(AuthorizationContract, WithoutAGrantorNoRightIsGranted) {
  const auto reference = create();
  ASSERT_TRUE(reference);
  office_->close();
  EXPECT_GT(ask(*reference, kSMRightModifySystemDaemons), kErrnoStatusBase);
  office_->open();
  EXPECT_EQ(ask(*reference, kSMRightModifySystemDaemons), 0);
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(AuthorizationContract);

}  // namespace platform
