// One file, because each test runs on the same machine of fakes, which the contract suite uses,
// too.

#include "Platform/Linux/KernelExtensions/LinuxKernelExtensions.h"

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/KernelExtensions/KernelExtensions_contract.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Jobs/FakeJobs.h"
#include "Platform/Testing/KernelExtensions/FakeKernelControls.h"
#include "Platform/Testing/KernelExtensions/KeepingHandler.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Processes/FakeExitWatcher.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

// A kernel with the modules that a test sets.
class FakeKernelModules final : public KernelModules {
 public:
  bool isLoaded(const std::string& module) override { return loaded.contains(module); }
  bool isBuiltIn(const std::string& module) override { return module == builtIn; }
  Result<std::vector<std::string>> load(const std::string& module) override {
    if (refusal) return std::unexpected(*refusal);
    if (loaded.insert(module).second) return std::vector{module};
    return std::vector<std::string>();
  }
  Result<void> unload(const std::string& module) override {
    if (module == builtIn) return std::unexpected(Error{ErrorCode::kDenied, EBUSY, "built in"});
    if (isInUse) return std::unexpected(Error{ErrorCode::kDenied, EBUSY, module});
    if (loaded.erase(module) == 1) return {};
    return std::unexpected(Error{ErrorCode::kNotFound, ENOENT, module});
  }

  std::set<std::string> loaded;
  std::string builtIn;  // one of those that are loaded
  std::optional<Error> refusal;
  bool isInUse = false;
};

// Extensions in a folder, on fakes only.
class Machine final : public ExtensionsMachine {
 public:
  static constexpr char kModule[] = "com.example.module";

  Machine() {
    installProgram(kGood);
    installProgram(kSilent);
    offer(kGood);
  }
  ~Machine() override {
    for (const std::string& label : jobs.labels()) {
      static_cast<void>(jobs.SMJobRemove(kSMDomainSystemLaunchd, label, nullptr, true));
    }
  }

  KernelExtensions& extensions() override { return loader; }
  KernelControls& controls() override { return fakeControls; }

  std::string bundle(const std::string& identifier) const {
    return folder.path("Library/Extensions/" + identifier + ".kext");
  }
  std::string program(const std::string& identifier) const {
    return bundle(identifier) + "/Contents/Linux/program";
  }
  void install(const std::string& identifier, const std::string& keys) {
    folder.write("Library/Extensions/" + identifier + ".kext/Contents/Info.plist",
                 "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" + identifier +
                     "</string>" + keys + "</dict></plist>");
  }
  void installProgram(const std::string& identifier) {
    install(identifier, "<key>CFBundleExecutable</key><string>program</string>");
    signatures.addValid(program(identifier), SecStaticCode::Kind::kProgram, identifier);
  }
  // A module, and a program that offers its control.
  void installModule() {
    installProgram(kModule);
    install(kModule,
            "<key>CFBundleExecutable</key><string>program</string>"
            "<key>OSKernelModule</key><string>example_module</string>");
    offer(kModule);
  }
  // Their controls listen while the extensions run.
  void offer(const std::string& identifier) {
    fakeControls.offer(
        identifier, [this] { return std::make_unique<KeepingHandler>(kept); },
        [this, identifier] { return listens && processOf(identifier).has_value(); });
  }
  std::optional<ProcessId> processOf(const std::string& identifier) const {
    return jobs.process(LinuxKernelExtensions::jobLabel(identifier));
  }
  Result<void> load(const std::string& identifier, const std::vector<std::string>& folders = {}) {
    return loader.KextManagerLoadKextWithIdentifier(identifier, folders);
  }
  Result<void> unload(const std::string& identifier) {
    return loader.KextManagerUnloadKextWithIdentifier(identifier);
  }

  TemporaryFolder folder;
  VirtualRunLoop loop;
  FakeLogSink sink;
  SystemLog log{sink, "test"};
  FakeExitWatcher watcher{loop};
  FakeJobs jobs{loop, watcher};
  FakeCodeSignatures signatures;
  FakeKernelControls fakeControls{loop};
  FakeKernelModules modules;
  KeepingHandler::Kept kept;
  bool listens = true;
  LinuxKernelExtensions loader{
      {loop, jobs, signatures, fakeControls, modules, log},
      LinuxKernelExtensions::folders(folder.path(), folder.path("resources"))};
};

std::unique_ptr<ExtensionsMachine> makeExtensionsMachine() { return std::make_unique<Machine>(); }

INSTANTIATE_TEST_SUITE_P(OnFakes, KernelExtensionsContract,
                         testing::Values(&makeExtensionsMachine));

class LinuxKernelExtensionsTest : public testing::Test {
 protected:
  static constexpr const char* kGood = ExtensionsMachine::kGood;
  static constexpr const char* kSilent = ExtensionsMachine::kSilent;
  static constexpr const char* kModule = Machine::kModule;

  void expectRefused(const Result<void>& result, ErrorCode code, const std::string& reason) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code, code);
    EXPECT_THAT(describe(result.error()), HasSubstr(reason));
    EXPECT_EQ(machine_.sink.count(reason), 1u);
  }

  Machine machine_;
};

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
