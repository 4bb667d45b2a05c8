#include "ServiceManager/ServiceManager/OwnIntegrity.h"

#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class OwnIntegrityTest : public testing::Test {
 protected:
  static constexpr char kBundle[] = "/Daemon.bundle";

  OwnIntegrityTest() { signatures_.addValid(kBundle, SecStaticCode::Kind::kBundle, "daemon"); }

  void refuse() {
    signatures_.addRefused(kBundle, SecStaticCode::Kind::kBundle, {errSecCSBadResource, "changed"});
  }

  VirtualRunLoop loop_;
  FakeCodeSignatures signatures_;
  const ORBSigningValidator validator_{signatures_};
  std::optional<EvaluationTimers> timers_{std::in_place, loop_};
  int intact_ = 0;
  std::vector<std::string> errors_;
  OwnIntegrity integrity_{{.runLoop = loop_,
                           .timers = *timers_,
                           .validator = validator_,
                           .bundlePath = kBundle,
                           .onIntact = [this] { ++intact_; },
                           .announceError =
                               [this](std::string_view /*error*/, std::string_view description) {
                                 errors_.emplace_back(description);
                               }}};
};

TEST_F(OwnIntegrityTest, ADamagedBundleIsAnnouncedAndNotCheckedAgain) {
  refuse();
  integrity_.check();
  loop_.advanceBy(1h);
  EXPECT_EQ(intact_, 0);
  EXPECT_EQ(signatures_.checks(kBundle), 1);
  EXPECT_THAT(errors_,
              ElementsAre("The service manager bundle appears to have been tampered with"));
}

TEST_F(OwnIntegrityTest, AShortageThatEndsWithinAMinuteIsNotAnnounced) {
  signatures_.setShortage(true);
  integrity_.check();
  loop_.advanceBy(OwnIntegrity::kMostTime - 1s);
  signatures_.setShortage(false);
  loop_.advanceBy(1h);
  EXPECT_EQ(intact_, 1);
  EXPECT_THAT(errors_, IsEmpty());
}

TEST_F(OwnIntegrityTest, ALongShortageIsAnnouncedOnceAndTheChecksGoOn) {
  signatures_.setShortage(true);
  integrity_.check();
  loop_.advanceBy(1h);
  EXPECT_EQ(intact_, 0);
  EXPECT_THAT(errors_, ElementsAre("The service manager bundle can't be checked"));
  const int checks = signatures_.checks(kBundle);
  loop_.advanceBy(1h);
  EXPECT_GT(signatures_.checks(kBundle), checks);
  signatures_.setShortage(false);
  loop_.advanceBy(1min);
  EXPECT_EQ(intact_, 1);
  loop_.advanceBy(1h);
  EXPECT_EQ(intact_, 1);
}

TEST_F(OwnIntegrityTest, ChecksThatAreDueAreDroppedWithTheTimers) {
  signatures_.setShortage(true);
  integrity_.check();
  const int checks = signatures_.checks(kBundle);
  timers_.reset();
  loop_.advanceBy(1h);
  EXPECT_EQ(signatures_.checks(kBundle), checks);
}

}  // namespace
