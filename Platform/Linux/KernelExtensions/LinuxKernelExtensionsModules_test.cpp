// Extensions with a module of the kernel.

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions_fixture.h"

namespace platform {
namespace {

using testing::ElementsAre;

TEST_F(LinuxKernelExtensionsTest, AModuleIsLoadedBesideTheProgramThatOffersItsControl) {
  machine_.installModule();
  ASSERT_TRUE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, ElementsAre("example_module"));
  EXPECT_TRUE(machine_.processOf(kModule));
  EXPECT_EQ(machine_.loader.KextManagerCopyLoadedKextInfo({kModule})[kModule][kOSBundleProcessKey],
            Value(machine_.processOf(kModule).value()));
  EXPECT_TRUE(machine_.load(kModule));
  EXPECT_TRUE(machine_.unload(kModule));
  EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
  EXPECT_EQ(machine_.unload(kModule).error().code, ErrorCode::kNotFound);
}

TEST_F(LinuxKernelExtensionsTest, AModuleIsUnloadedWithoutItsBundle) {
  machine_.installModule();
  ASSERT_TRUE(machine_.load(kModule));
  std::filesystem::remove_all(machine_.bundle(kModule));
  EXPECT_TRUE(machine_.unload(kModule));
  EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
}

TEST_F(LinuxKernelExtensionsTest, AModuleInUseIsUnloadedLater) {
  machine_.installModule();
  ASSERT_TRUE(machine_.load(kModule));
  machine_.modules.isInUse = true;
  for (int i = 0; i < 2; ++i) {
    const auto inUse = machine_.unload(kModule);
    ASSERT_FALSE(inUse);
    EXPECT_EQ(inUse.error().osError, EBUSY);
  }
  machine_.modules.isInUse = false;
  EXPECT_TRUE(machine_.unload(kModule));
  EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
}

TEST_F(LinuxKernelExtensionsTest, AModuleThatWasRemovedIsLoadedAgain) {
  machine_.installModule();
  ASSERT_TRUE(machine_.load(kModule));
  machine_.modules.loaded.clear();
  EXPECT_TRUE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, ElementsAre("example_module"));
  machine_.modules.loaded.clear();
  EXPECT_TRUE(machine_.unload(kModule));
}

TEST_F(LinuxKernelExtensionsTest, AModulesBundleIsCheckedFirst) {
  machine_.installModule();
  machine_.signatures.addRefused(machine_.program(kModule), SecStaticCode::Kind::kProgram,
                                 {errSecCSBadResource, "Info.plist was changed"});
  expectRefused(machine_.load(kModule), ErrorCode::kDenied, "Info.plist was changed");
  EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
}

TEST_F(LinuxKernelExtensionsTest, AKernelThatLoadsNoModulesIsReportedAsTheReason) {
  machine_.installModule();
  machine_.modules.refusal = Error{ErrorCode::kDenied, EPERM, "the kernel does not load it"};
  expectRefused(machine_.load(kModule), ErrorCode::kDenied, "the kernel does not load it");
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
}

// After somebody has removed the module of a running extension.
TEST_F(LinuxKernelExtensionsTest, ARefusedModuleEndsNoRunningJob) {
  machine_.installModule();
  ASSERT_TRUE(machine_.load(kModule));
  const auto process = machine_.processOf(kModule);
  machine_.modules.loaded.clear();
  machine_.modules.refusal = Error{ErrorCode::kDenied, EPERM, "the kernel does not load it"};
  for (std::size_t i = 0; i < 2 * LinuxKernelExtensions::kMostStarts; ++i) {
    const auto refused = machine_.load(kModule);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, ErrorCode::kDenied);  // None of these starts was counted.
    EXPECT_EQ(machine_.processOf(kModule), process);
  }
  machine_.modules.refusal.reset();
  EXPECT_TRUE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, ElementsAre("example_module"));
}

TEST_F(LinuxKernelExtensionsTest, AFailedStartLeavesNoModuleBehind) {
  machine_.installModule();
  machine_.listens = false;
  EXPECT_FALSE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
  machine_.jobs.setUnstartable(machine_.program(kModule), "no such interpreter");
  EXPECT_FALSE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
}

TEST_F(LinuxKernelExtensionsTest, AFailedStartLeavesAnothersModuleAlone) {
  machine_.installModule();
  machine_.modules.loaded = {"example_module"};
  machine_.listens = false;
  EXPECT_FALSE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, ElementsAre("example_module"));
}

TEST_F(LinuxKernelExtensionsTest, ABuiltInModuleOutlivesItsExtension) {
  machine_.installModule();
  machine_.modules.loaded = {"example_module"};
  machine_.modules.builtIn = "example_module";
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(machine_.load(kModule));
    EXPECT_TRUE(machine_.unload(kModule));
    EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
    EXPECT_EQ(machine_.unload(kModule).error().code, ErrorCode::kNotFound);
  }
}

TEST_F(LinuxKernelExtensionsTest, ALostAnswerToAStartLeavesNothingBehind) {
  machine_.installModule();
  for (std::size_t i = 0; i < LinuxKernelExtensions::kMostStarts; ++i) {
    machine_.jobs.loseNextAnswer();
    EXPECT_FALSE(machine_.load(kModule));
    EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
    EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
  }
  EXPECT_EQ(machine_.load(kModule).error().code, ErrorCode::kExhausted);  // They have run.
}

TEST_F(LinuxKernelExtensionsTest, ARejectedStartIsNotCounted) {
  machine_.installModule();
  machine_.jobs.setFull(true);
  for (std::size_t i = 0; i < 2 * LinuxKernelExtensions::kMostStarts; ++i) {
    EXPECT_FALSE(machine_.load(kModule));
    EXPECT_THAT(machine_.modules.loaded, testing::IsEmpty());
  }
  machine_.jobs.setFull(false);
  EXPECT_TRUE(machine_.load(kModule));
}

// Its program may run.
TEST_F(LinuxKernelExtensionsTest, AModuleStaysWhileItsJobCannotBeRemoved) {
  machine_.installModule();
  machine_.listens = false;
  const std::string label = LinuxKernelExtensions::jobLabel(kModule);
  machine_.jobs.refuseRemoval(label, "not now");
  EXPECT_FALSE(machine_.load(kModule));
  EXPECT_THAT(machine_.modules.loaded, ElementsAre("example_module"));
  machine_.listens = true;
  EXPECT_TRUE(machine_.load(kModule));
  machine_.jobs.setUnstartable(machine_.program(kModule), "the end of the test");
  machine_.jobs.endProcess(label);
}

}  // namespace
}  // namespace platform
