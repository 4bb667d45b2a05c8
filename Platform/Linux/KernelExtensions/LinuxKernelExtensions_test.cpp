#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/KernelExtensions/KernelExtensions_contract.h"
#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

std::unique_ptr<ExtensionsMachine> makeExtensionsMachine() {
  return std::make_unique<FakeExtensionsMachine>();
}

INSTANTIATE_TEST_SUITE_P(OnFakes, KernelExtensionsContract,
                         testing::Values(&makeExtensionsMachine));

TEST_F(LinuxKernelExtensionsTest, AUserSpaceExtensionIsAKeepAliveJob) {
  ASSERT_TRUE(machine_.load(kGood));
  const Value job =
      machine_.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, "kext." + std::string(kGood));
  EXPECT_EQ(job["Program"], Value(machine_.program(kGood)));
  EXPECT_EQ(job["KeepAlive"], Value(true));
  EXPECT_EQ(job["ThrottleInterval"], Value(1));
  EXPECT_EQ(job["ExitTimeOut"], Value(1));
}

TEST_F(LinuxKernelExtensionsTest, TheJobHostGetsTheVerifiedProgram) {
  VerifiedFile file;
  file.digestName = "SHA256";
  file.digest = {1};
  machine_.signatures.setFile(machine_.program(kGood), file);
  ASSERT_TRUE(machine_.load(kGood));
  const Value job =
      machine_.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, "kext." + std::string(kGood));
  EXPECT_EQ(job[kJobVerifiedProgramKey], Value(textOfVerifiedFile(file)));
}

TEST_F(LinuxKernelExtensionsTest, ASignatureThatCannotBeCheckedIsNoRefusal) {
  machine_.signatures.setShortage(true);
  const auto loaded = machine_.load(kGood);
  ASSERT_FALSE(loaded);
  EXPECT_TRUE(isUnchecked(loaded.error())) << describe(loaded.error());
  machine_.signatures.setShortage(false);
  EXPECT_TRUE(machine_.load(kGood));
}

TEST_F(LinuxKernelExtensionsTest, TheSignatureIsCheckedBeforeAnythingRuns) {
  machine_.signatures.addRefused(machine_.program(kGood), SecStaticCode::Kind::kProgram,
                                 {errSecCSSignatureFailed, "is not what was signed"});
  expectRefused(machine_.load(kGood), ErrorCode::kDenied, "is not what was signed (-67061)");
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
  machine_.signatures.remove(machine_.program(kGood));
  EXPECT_FALSE(machine_.load(kGood));
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
}

TEST_F(LinuxKernelExtensionsTest, AnUnloadableExtensionIsNotAuthenticForAReason) {
  machine_.signatures.addRefused(machine_.program(kGood), SecStaticCode::Kind::kProgram,
                                 {errSecCSSignatureFailed, "is not what was signed"});
  const auto refused = machine_.loader.OSKextAuthenticate(kGood);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kDenied);
  EXPECT_THAT(refused.error().context, HasSubstr("is not what was signed (-67061)"));
  EXPECT_EQ(machine_.sink.count("is not what was signed"), 0u);  // Nobody tried to load it.
}

TEST_F(LinuxKernelExtensionsTest, ARunningExtensionIsListedWithoutItsBundle) {
  ASSERT_TRUE(machine_.load(kGood));
  const Value process = Value(machine_.processOf(kGood).value());
  const auto expectTold = [&] {
    EXPECT_EQ(machine_.loader.KextManagerCopyLoadedKextInfo({kGood})[kGood],
              Value(Dictionary{{kOSBundleProcessKey, process},
                               {kOSBundlePathKey, machine_.bundle(kGood)}}));
  };
  expectTold();
  machine_.install(kGood, "<broken>");
  expectTold();
  machine_.install("com.example.nke.goof", "");
  std::filesystem::remove_all(machine_.bundle(kGood));
  expectTold();
  EXPECT_TRUE(machine_.unload(kGood));
}

TEST_F(LinuxKernelExtensionsTest, ACrashedExtensionHasNoProcessUntilItsRestart) {
  ASSERT_TRUE(machine_.load(kGood));
  machine_.jobs.endProcess("kext." + std::string(kGood), {ExitStatus::Kind::kSignalled, 9});
  machine_.loop.runReady();
  ASSERT_FALSE(machine_.processOf(kGood));  // It ran for less than the host's throttle.
  const auto process = [&] {
    return machine_.loader.KextManagerCopyLoadedKextInfo({kGood})[kGood][kOSBundleProcessKey];
  };
  EXPECT_EQ(process(), Value(0));
  machine_.loop.advanceBy(1s);
  EXPECT_EQ(process(), Value(machine_.processOf(kGood).value()));
}

TEST_F(LinuxKernelExtensionsTest, WithoutAnAnswerOfTheJobHostTheStateIsUnknown) {
  const auto information = [&] {
    return machine_.loader.KextManagerCopyLoadedKextInfo({kGood})[kGood];
  };
  machine_.jobs.setReachable(false);
  EXPECT_TRUE(isKextUnknown(information()));
  machine_.jobs.setReachable(true);
  EXPECT_TRUE(information().isNil());
  ASSERT_TRUE(machine_.load(kGood));
  EXPECT_FALSE(isKextUnknown(information()));
  EXPECT_FALSE(information().isNil());
  machine_.jobs.setReachable(false);
  EXPECT_TRUE(isKextUnknown(information()));
}

TEST_F(LinuxKernelExtensionsTest, AnIdentifierThatTwoBundlesClaimIsNotLoaded) {
  const std::string other = machine_.folder.path("Library/Extensions/A.kext");
  std::filesystem::copy(machine_.bundle(kGood), other, std::filesystem::copy_options::recursive);
  expectRefused(machine_.load(kGood), ErrorCode::kInvalid, "both claim to be it");
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
  EXPECT_FALSE(machine_.loader.OSKextAuthenticate(kGood));
  std::filesystem::remove_all(other);
  EXPECT_TRUE(machine_.load(kGood));
}

TEST_F(LinuxKernelExtensionsTest, ANewExtensionsControlIsAwaitedForFiveSeconds) {
  const Instant before = machine_.loop.now();
  machine_.listens = false;
  machine_.loop.scheduleOutsideEvent(4999ms, [&] { machine_.listens = true; });
  EXPECT_TRUE(machine_.load(kGood));
  EXPECT_LT(machine_.loop.now() - before, 5100ms);
}

TEST_F(LinuxKernelExtensionsTest, AnExtensionThatListensTooLateIsEnded) {
  machine_.listens = false;
  machine_.loop.scheduleOutsideEvent(5100ms, [&] { machine_.listens = true; });
  const auto refused = machine_.load(kGood);
  expectRefused(refused, ErrorCode::kNotFound, "its control does not listen after 5 s");
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
}

TEST_F(LinuxKernelExtensionsTest, ARunningExtensionThatDoesNotListenIsLeftRunning) {
  ASSERT_TRUE(machine_.load(kGood));
  machine_.listens = false;
  const Instant before = machine_.loop.now();
  EXPECT_FALSE(machine_.load(kGood));
  EXPECT_GE(machine_.loop.now() - before, 5s);
  EXPECT_TRUE(machine_.processOf(kGood));
  EXPECT_TRUE(machine_.unload(kGood));  // By force, because it does not answer.
  EXPECT_FALSE(machine_.processOf(kGood));
}

TEST_F(LinuxKernelExtensionsTest, WithoutDescriptorsARunningExtensionIsUnchecked) {
  ASSERT_TRUE(machine_.load(kGood));
  machine_.fakeControls.setWithoutDescriptors(true);
  const auto loaded = machine_.load(kGood);
  machine_.fakeControls.setWithoutDescriptors(false);
  ASSERT_FALSE(loaded);
  EXPECT_TRUE(isUnchecked(loaded.error())) << describe(loaded.error());
  EXPECT_TRUE(machine_.processOf(kGood));
}

TEST_F(LinuxKernelExtensionsTest, AHungExtensionIsUnloadedByForce) {
  ASSERT_TRUE(machine_.load(kGood));
  machine_.fakeControls.setHanging(kGood, true);
  machine_.jobs.ignoreTermination("kext." + std::string(kGood));
  const Instant before = machine_.loop.now();
  EXPECT_TRUE(machine_.unload(kGood));
  EXPECT_LE(machine_.loop.now() - before, 2s + 100ms);  // Its time-outs for the answer and the end.
  EXPECT_FALSE(machine_.processOf(kGood));
}

TEST_F(LinuxKernelExtensionsTest, ACrashedExtensionIsRestartedByTheHost) {
  ASSERT_TRUE(machine_.load(kGood));
  machine_.loop.advanceBy(10s);
  machine_.jobs.endProcess("kext." + std::string(kGood), {ExitStatus::Kind::kSignalled, 11});
  machine_.loop.runReady();
  EXPECT_TRUE(machine_.processOf(kGood));
  EXPECT_TRUE(machine_.load(kGood));
}

TEST_F(LinuxKernelExtensionsTest, AReplacedExtensionIsVerifiedAndStartedAgain) {
  VerifiedFile file;
  file.digestName = "SHA256";
  file.digest = {1};
  const auto install = [&] {
    machine_.signatures.setFile(machine_.program(kGood), file);
    machine_.jobs.setFile(machine_.program(kGood), file);
  };
  install();
  ASSERT_TRUE(machine_.load(kGood));
  machine_.loop.advanceBy(10s);
  file.digest = {2};
  install();
  machine_.jobs.endProcess("kext." + std::string(kGood), {ExitStatus::Kind::kExited, 0});
  machine_.loop.runReady();
  ASSERT_FALSE(machine_.processOf(kGood));
  EXPECT_TRUE(machine_.load(kGood));
  EXPECT_TRUE(machine_.processOf(kGood));
}

TEST_F(LinuxKernelExtensionsTest, AProgramThatIsReplacedAfterItsCheckIsUnchecked) {
  VerifiedFile file;
  file.digestName = "SHA256";
  file.digest = {1};
  machine_.signatures.setFile(machine_.program(kGood), file);
  file.digest = {2};
  machine_.jobs.setFile(machine_.program(kGood), file);
  const auto loaded = machine_.load(kGood);
  ASSERT_FALSE(loaded);
  EXPECT_TRUE(isUnchecked(loaded.error())) << describe(loaded.error());
}

// Its user unloads and loads an extension that never becomes usable again and again.
TEST_F(LinuxKernelExtensionsTest, NoExtensionIsStartedMoreThanThreeTimesAMinute) {
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(machine_.load(kGood)) << i;
    ASSERT_TRUE(machine_.unload(kGood)) << i;
    machine_.loop.advanceBy(1s);
  }
  expectRefused(machine_.load(kGood), ErrorCode::kExhausted,
                "was started 3 times within a minute; not again within 57 s");
  EXPECT_THAT(machine_.jobs.labels(), testing::IsEmpty());
  machine_.offer(kSilent);
  EXPECT_TRUE(machine_.load(kSilent));  // Each extension has its own count.
  machine_.loop.advanceBy(57s - 1ns);
  EXPECT_FALSE(machine_.load(kGood));
  machine_.loop.advanceBy(1ns);
  EXPECT_TRUE(machine_.load(kGood));
}

TEST_F(LinuxKernelExtensionsTest, LoadingALoadedExtensionIsNoStart) {
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(machine_.load(kGood));
}

TEST_F(LinuxKernelExtensionsTest, AHostThatStartsNothingIsReportedAsTheReason) {
  machine_.jobs.setUnstartable(machine_.program(kGood), "no such interpreter");
  expectRefused(machine_.load(kGood), ErrorCode::kSystem, "no such interpreter");
}

TEST_F(LinuxKernelExtensionsTest, AHungHostChangesNothing) {
  ASSERT_TRUE(machine_.load(kGood));
  machine_.jobs.setReachable(false);
  expectRefused(machine_.load(kGood), ErrorCode::kSystem, "the job host does not tell");
  const auto unloaded = machine_.unload(kGood);
  ASSERT_FALSE(unloaded);
  EXPECT_THAT(unloaded.error().context, testing::HasSubstr("the job host does not tell"));
  machine_.jobs.setReachable(true);
  EXPECT_TRUE(machine_.unload(kGood));
}

// After a repair it can be started at once.
TEST_F(LinuxKernelExtensionsTest, AStartThatNeverHappenedIsNotCounted) {
  machine_.jobs.setUnstartable(machine_.program(kGood), "no such interpreter");
  for (int i = 0; i < 5; ++i) {
    const auto refused = machine_.load(kGood);
    ASSERT_FALSE(refused);
    EXPECT_THAT(refused.error().context, HasSubstr("no such interpreter"));
  }
  machine_.jobs.setUnstartable(machine_.program(kGood), std::nullopt);
  EXPECT_TRUE(machine_.load(kGood));
}

TEST_F(LinuxKernelExtensionsTest, ResourcesAndTheCallersFoldersAreSearchedToo) {
  const auto move = [&](const std::string& to) {
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::rename(machine_.bundle(kGood), to);
    return machine_.loader.KextManagerCreateURLForBundleIdentifier(kGood);
  };
  const std::string inResources = machine_.folder.path("resources/G.kext");
  EXPECT_EQ(move(inResources), inResources);
  std::filesystem::create_directories(machine_.folder.path("elsewhere"));
  const std::string elsewhere = machine_.folder.path("elsewhere/G.kext");
  std::filesystem::rename(inResources, elsewhere);
  machine_.signatures.addValid(elsewhere + "/Contents/Linux/program", SecStaticCode::Kind::kProgram,
                               kGood);
  EXPECT_FALSE(machine_.load(kGood));
  EXPECT_TRUE(machine_.load(kGood, {elsewhere}));
  EXPECT_TRUE(machine_.unload(kGood));
  EXPECT_TRUE(machine_.load(kGood, {machine_.folder.path("elsewhere")}));
}

}  // namespace
}  // namespace platform
