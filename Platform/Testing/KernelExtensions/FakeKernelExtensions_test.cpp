#include "Platform/Testing/KernelExtensions/FakeKernelExtensions.h"

#include <chrono>

#include "Platform/KernelExtensions/KernelExtensions_contract.h"
#include "Platform/Testing/KernelExtensions/KeepingHandler.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class FakeExtensionsMachine final : public ExtensionsMachine {
 public:
  FakeExtensionsMachine() {
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

std::unique_ptr<ExtensionsMachine> makeExtensionsMachine() {
  return std::make_unique<FakeExtensionsMachine>();
}

INSTANTIATE_TEST_SUITE_P(Fake, KernelExtensionsContract, testing::Values(&makeExtensionsMachine));

TEST(FakeKernelExtensionsTest, AMissingControlIsAwaitedForFiveSeconds) {
  FakeExtensionsMachine machine;
  const Instant before = machine.loop().now();
  EXPECT_FALSE(machine.fake.KextManagerLoadKextWithIdentifier(FakeExtensionsMachine::kSilent, {}));
  EXPECT_EQ(machine.loop().now() - before, 5s);
}

TEST(FakeKernelExtensionsTest, ACrashedExtensionIsLoadedAndDoesNotListen) {
  FakeExtensionsMachine machine;
  ASSERT_TRUE(machine.fake.KextManagerLoadKextWithIdentifier(FakeExtensionsMachine::kGood, {}));
  machine.fake.crash(FakeExtensionsMachine::kGood);
  EXPECT_FALSE(machine.fake.KextManagerLoadKextWithIdentifier(FakeExtensionsMachine::kGood, {}));
  EXPECT_TRUE(machine.fake.isLoaded(FakeExtensionsMachine::kGood));
  EXPECT_TRUE(machine.fake.KextManagerUnloadKextWithIdentifier(FakeExtensionsMachine::kGood));
  EXPECT_TRUE(machine.fake.KextManagerLoadKextWithIdentifier(FakeExtensionsMachine::kGood, {}));
}

TEST(FakeKernelExtensionsTest, TheStateOfAnExtensionMayBeUnknown) {
  FakeExtensionsMachine machine;
  const std::string good = FakeExtensionsMachine::kGood;
  const auto information = [&] { return machine.fake.KextManagerCopyLoadedKextInfo({good})[good]; };
  machine.fake.setUnknown(good, true);
  EXPECT_TRUE(isKextUnknown(information()));
  machine.fake.setLoaded(good);
  EXPECT_TRUE(isKextUnknown(information()));
  machine.fake.setUnknown(good, false);
  EXPECT_FALSE(isKextUnknown(information()));
  EXPECT_FALSE(information().isNil());
}

TEST(FakeKernelExtensionsTest, ActsAsTheTestSays) {
  FakeExtensionsMachine machine;
  const std::string good = FakeExtensionsMachine::kGood;
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
