#include "Platform/Testing/FakeKernelExtensions.h"

#include <chrono>

#include "Platform/KernelExtensions_contract.h"
#include "Platform/Testing/KeepingHandler.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class FakeMachine final : public ExtensionsMachine {
 public:
  FakeMachine() {
    for (const char* identifier : {kGood, kSilent}) {
      fake.install(identifier, [this] { return std::make_unique<KeepingHandler>(kept_); });
    }
    fake.setOnLoad(kSilent, [this] { fake.crash(kSilent); });
    controls_.offer(kSilent, nullptr, [] { return false; });
  }
  KernelExtensions& extensions() override { return fake; }
  KernelControls& controls() override { return controls_; }
  VirtualRunLoop& loop() { return loop_; }

 private:
  VirtualRunLoop loop_;
  KeepingHandler::Kept kept_;
  FakeKernelControls controls_{loop_};

 public:
  FakeKernelExtensions fake{loop_, controls_};
};

std::unique_ptr<ExtensionsMachine> makeMachine() { return std::make_unique<FakeMachine>(); }

INSTANTIATE_TEST_SUITE_P(Fake, KernelExtensionsContract, testing::Values(&makeMachine));

TEST(FakeKernelExtensionsTest, OneWhoseControlDoesNotListenIsWaitedForFiveSeconds) {
  FakeMachine machine;
  const Instant before = machine.loop().now();
  EXPECT_FALSE(machine.fake.KextManagerLoadKextWithIdentifier(FakeMachine::kSilent, {}));
  EXPECT_EQ(machine.loop().now() - before, 5s);
}

TEST(FakeKernelExtensionsTest, OneThatHasCrashedIsLoadedAndDoesNotListen) {
  FakeMachine machine;
  ASSERT_TRUE(machine.fake.KextManagerLoadKextWithIdentifier(FakeMachine::kGood, {}));
  machine.fake.crash(FakeMachine::kGood);
  EXPECT_FALSE(machine.fake.KextManagerLoadKextWithIdentifier(FakeMachine::kGood, {}));
  EXPECT_TRUE(machine.fake.isLoaded(FakeMachine::kGood));
  EXPECT_TRUE(machine.fake.KextManagerUnloadKextWithIdentifier(FakeMachine::kGood));
  EXPECT_TRUE(machine.fake.KextManagerLoadKextWithIdentifier(FakeMachine::kGood, {}));
}

TEST(FakeKernelExtensionsTest, WhetherOneIsLoadedMayNotBeKnown) {
  FakeMachine machine;
  const std::string good = FakeMachine::kGood;
  const auto information = [&] { return machine.fake.KextManagerCopyLoadedKextInfo({good})[good]; };
  machine.fake.setUnknown(good, true);
  EXPECT_TRUE(isKextUnknown(information()));
  machine.fake.setLoaded(good);
  EXPECT_TRUE(isKextUnknown(information()));
  machine.fake.setUnknown(good, false);
  EXPECT_FALSE(isKextUnknown(information()));
  EXPECT_FALSE(information().isNil());
}

TEST(FakeKernelExtensionsTest, DoesWhatTheTestSays) {
  FakeMachine machine;
  const std::string good = FakeMachine::kGood;
  machine.fake.setLoadFails(good, true);
  EXPECT_FALSE(machine.fake.KextManagerLoadKextWithIdentifier(good, {}));
  machine.fake.setLoadFails(good, false);
  machine.fake.setWithoutControl(good, true);
  EXPECT_TRUE(machine.fake.KextManagerLoadKextWithIdentifier(good, {}));
  EXPECT_FALSE(connectToControl(machine.controls(), good));
  machine.fake.setBusy(good, 1);
  EXPECT_FALSE(machine.fake.KextManagerUnloadKextWithIdentifier(good));
  EXPECT_TRUE(machine.fake.KextManagerUnloadKextWithIdentifier(good));
  EXPECT_EQ(machine.fake.requests(),
            (std::vector<std::string>{"load " + good, "load " + good, "unload " + good,
                                      "unload " + good}));
}

}  // namespace
}  // namespace platform
