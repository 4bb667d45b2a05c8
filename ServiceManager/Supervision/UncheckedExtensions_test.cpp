// An extension whose signature can't be checked now: nothing is known about it, so nothing that
// runs is stopped.

#include <chrono>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/Supervision/KernelExtensions_fixture.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class UncheckedExtensionsTest : public WithKernelExtensions<SupervisionFixture> {
 protected:
  UncheckedExtensionsTest() { extensions_.setUnchecked(kNetwork, true); }

  void run() {
    enforcement_.enforceRunningForService(kHelper, {});
    loop_.advanceBy(2s);
  }
};

TEST_F(UncheckedExtensionsTest, AServiceOfOneIsStartedWhenItCanBeChecked) {
  run();
  EXPECT_FALSE(isRunning(kHelper));
  EXPECT_THAT(requests(), Not(testing::Contains(testing::HasSubstr("unload"))));
  EXPECT_EQ(control_.failures().at("net").step, kKextIsUnchecked);
  EXPECT_FALSE(evaluations_.empty());  // of each service that uses it, later
  for (const auto& [label, delay] : evaluations_) EXPECT_EQ(delay, 5s) << label;
  extensions_.setUnchecked(kNetwork, false);
  run();
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_THAT(control_.failures(), IsEmpty());
}

TEST_F(UncheckedExtensionsTest, ARunningServiceOfOneGoesOn) {
  extensions_.setUnchecked(kNetwork, false);
  run();
  const auto before = jobs_.process(kHelper);
  ASSERT_TRUE(before);
  ASSERT_TRUE(extensions_.KextManagerUnloadKextWithIdentifier(kNetwork));
  extensions_.setUnchecked(kNetwork, true);
  control_.forgetAll();
  run();
  EXPECT_EQ(jobs_.process(kHelper), before);
}

TEST_F(UncheckedExtensionsTest, AReplacedExtensionIsLoadedAgainForItsServices) {
  extensions_.setUnchecked(kNetwork, false);
  run();
  ASSERT_THAT(control_.kextsLoaded(), ElementsAre("net"));
  control_.programHasChanged(kNetwork);
  EXPECT_THAT(control_.kextsLoaded(), IsEmpty());
  EXPECT_THAT(evaluations_,
              testing::UnorderedElementsAre(testing::Pair(kAgent, 0s), testing::Pair(kHelper, 0s)));
  control_.programHasChanged("com.example.unknown");
  EXPECT_EQ(evaluations_.size(), 2u);
}

}  // namespace
