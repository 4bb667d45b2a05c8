#pragma once

// The contract of every implementation of KernelExtensions. A test program derives a machine from
// ExtensionsMachine and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, KernelExtensionsContract, testing::Values(&makeFakeMachine));

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/KernelExtensions/ExtensionsMachine_fixture.h"
#include "Platform/KernelExtensions/KernelControls.h"
#include "Platform/KernelExtensions/KernelExtensions.h"
#include "Platform/Values/Value.h"

namespace platform {

class KernelExtensionsContract
    : public testing::TestWithParam<std::unique_ptr<ExtensionsMachine> (*)()> {
 protected:
  static constexpr const char* kGood = ExtensionsMachine::kGood;
  static constexpr const char* kSilent = ExtensionsMachine::kSilent;
  static constexpr char kMissing[] = "com.example.nke.missing";

  Result<void> load(const std::string& identifier) {
    return extensions_.KextManagerLoadKextWithIdentifier(identifier, {});
  }
  Result<void> unload(const std::string& identifier) {
    return extensions_.KextManagerUnloadKextWithIdentifier(identifier);
  }
  bool isLoaded(const std::string& identifier) {
    return extensions_.KextManagerCopyLoadedKextInfo({identifier}).contains(identifier);
  }
  bool listens(const std::string& identifier) {
    return connectToControl(machine_->controls(), identifier).has_value();
  }
  static void expectError(const Result<void>& result, ErrorCode code) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, code) << describe(result.error());
    EXPECT_NE(result.error().context, "");
  }

  std::unique_ptr<ExtensionsMachine> machine_ = GetParam()();
  KernelExtensions& extensions_ = machine_->extensions();
};

TEST_P(KernelExtensionsContract, AnExtensionIsFoundByItsIdentifier) {
  EXPECT_TRUE(extensions_.KextManagerCreateURLForBundleIdentifier(kGood));
  EXPECT_TRUE(extensions_.KextManagerCreateURLForBundleIdentifier(kSilent));
  const auto missing = extensions_.KextManagerCreateURLForBundleIdentifier(kMissing);
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, ErrorCode::kNotFound);
}

TEST_P(KernelExtensionsContract, AuthenticatingAnExtensionDoesNotLoadIt) {
  const auto authentic = extensions_.OSKextAuthenticate(kGood);
  EXPECT_TRUE(authentic) << describe(authentic.error());
  EXPECT_FALSE(isLoaded(kGood));
  expectError(extensions_.OSKextAuthenticate(kMissing), ErrorCode::kNotFound);
}

TEST_P(KernelExtensionsContract, TheControlOfALoadedExtensionListens) {
  EXPECT_FALSE(isLoaded(kGood));
  EXPECT_FALSE(listens(kGood));
  const auto loaded = load(kGood);
  ASSERT_TRUE(loaded) << describe(loaded.error());
  EXPECT_TRUE(isLoaded(kGood));
  EXPECT_TRUE(listens(kGood));
  EXPECT_TRUE(unload(kGood));
}

TEST_P(KernelExtensionsContract, LoadingALoadedExtensionSucceeds) {
  ASSERT_TRUE(load(kGood));
  const Value before = extensions_.KextManagerCopyLoadedKextInfo({kGood});
  EXPECT_TRUE(load(kGood));
  EXPECT_EQ(Value(extensions_.KextManagerCopyLoadedKextInfo({kGood})), before);
  EXPECT_TRUE(unload(kGood));
}

TEST_P(KernelExtensionsContract, AnUnloadedExtensionHasNoControl) {
  ASSERT_TRUE(load(kGood));
  EXPECT_TRUE(unload(kGood));
  EXPECT_FALSE(isLoaded(kGood));
  EXPECT_FALSE(listens(kGood));
  EXPECT_TRUE(load(kGood));
  EXPECT_TRUE(unload(kGood));
}

TEST_P(KernelExtensionsContract, AnExtensionThatIsNotLoadedCannotBeUnloaded) {
  expectError(unload(kGood), ErrorCode::kNotFound);
  expectError(unload(kMissing), ErrorCode::kNotFound);
}

TEST_P(KernelExtensionsContract, AMissingExtensionCannotBeLoaded) {
  expectError(load(kMissing), ErrorCode::kNotFound);
  expectError(load(""), ErrorCode::kNotFound);
}

TEST_P(KernelExtensionsContract, AnExtensionWithoutAControlIsNotLeftRunning) {
  ASSERT_FALSE(load(kSilent));
  EXPECT_FALSE(isLoaded(kSilent));
}

TEST_P(KernelExtensionsContract, AnExtensionInUseIsNotUnloaded) {
  ASSERT_TRUE(load(kGood));
  auto client = connectToControl(machine_->controls(), kGood);
  ASSERT_TRUE(client);
  static_cast<void>((*client)->getIntegerOption(3));  // Its answer shows that it has been accepted.
  const auto refused = unload(kGood);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kDenied);
  EXPECT_EQ(refused.error().osError, EBUSY);
  EXPECT_TRUE(isLoaded(kGood));
  client->reset();
  EXPECT_TRUE(unload(kGood));
}

TEST_P(KernelExtensionsContract, OnlyLoadedExtensionsAreListed) {
  EXPECT_TRUE(extensions_.KextManagerCopyLoadedKextInfo({kGood, kSilent, kMissing}).empty());
  ASSERT_TRUE(load(kGood));
  const Dictionary loaded = extensions_.KextManagerCopyLoadedKextInfo({kGood, kSilent, kMissing});
  EXPECT_EQ(loaded.size(), 1u);
  EXPECT_EQ(loaded[kGood][kOSBundlePathKey],
            Value(extensions_.KextManagerCreateURLForBundleIdentifier(kGood).value()));
  EXPECT_TRUE(unload(kGood));
}

}  // namespace platform
