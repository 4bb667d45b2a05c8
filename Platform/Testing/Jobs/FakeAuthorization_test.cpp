#include "Platform/Testing/Jobs/FakeAuthorization.h"

#include <gtest/gtest.h>

#include "Platform/Jobs/Authorization_contract.h"

namespace platform {
namespace {

class FakeOffice final : public AuthorizationOffice {
 public:
  Authorization& authorization() override { return authorization_; }
  void open() override { jobs_.setReachable(true); }
  void close() override { jobs_.setReachable(false); }

 private:
  VirtualRunLoop loop_;
  FakeExitWatcher exitWatcher_{loop_};
  FakeJobs jobs_{loop_, exitWatcher_};
  FakeAuthorization authorization_{jobs_};
};

std::unique_ptr<AuthorizationOffice> makeOffice() { return std::make_unique<FakeOffice>(); }

INSTANTIATE_TEST_SUITE_P(Fake, AuthorizationContract, testing::Values(&makeOffice));

TEST(FakeAuthorizationTest, ACallerThatTheHostRefusesIsDenied) {
  VirtualRunLoop loop;
  FakeExitWatcher exitWatcher(loop);
  FakeJobs jobs(loop, exitWatcher);
  FakeAuthorization authorization(jobs);
  jobs.setCallerAllowed(false);
  const auto reference = authorization.AuthorizationCreate(kAuthorizationFlagDefaults);
  ASSERT_TRUE(reference);
  EXPECT_EQ(authorization.AuthorizationCopyRights(
                **reference, std::array<std::string_view, 1>{kSMRightModifySystemDaemons},
                kAuthorizationFlagExtendRights),
            errAuthorizationDenied);
}

}  // namespace
}  // namespace platform
