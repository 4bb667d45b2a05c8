// Real extensions that the daemon loads as jobs and sends the secret: working, too old, deaf and
// hung.

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Platform/KernelExtensions/KernelExtensions_contract.h"
#include "Platform/Linux/KernelExtensions/KmodModules.h"
#include "Tests/EndToEnd/DaemonExtensions_fixture.h"

namespace platform {
namespace {

using testing::HasSubstr;

class DaemonKernelExtensions : public DaemonExtensionsFixture {
 protected:
  // The status and the errors of the program.
  std::pair<int, std::string> kextunload(std::vector<std::string> arguments) {
    const std::string program = root_.folder().path("sbin/kextunload");
    if (!std::filesystem::exists(program)) {
      std::filesystem::create_directories(root_.folder().path("sbin"));
      std::filesystem::copy_file(KEXTUNLOAD, program);
    }
    arguments.insert(arguments.begin(), program);
    ChildProgram child(std::move(arguments), {});
    const int code = child.waitForExit().number;
    return {code, child.errors()};
  }
};

TEST_F(DaemonKernelExtensions, TheNetworkExtensionProvesThatItHasTheSecret) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  EXPECT_TRUE(runs(0) && runs(1) && runs(2));
  EXPECT_GT(extension(kNetwork), 0);
  EXPECT_GT(extension(kOther), 0);
  root_.awaitLog("has been told");
  expectToHaveTheSecret();
}

TEST_F(DaemonKernelExtensions, AnExtensionThatStaysTooOldFails) {
  expectUseless("<key>ControlVersion</key><integer>4</integer>");
  // Five seconds later the service that needs it is evaluated again, and no other.
  root_.awaitLog("Evaluating service: " + DaemonRoot::label(0) + "\n", 2);
  EXPECT_TRUE(UserInterfaceClient(root_).ask("services"));
  EXPECT_TRUE(runs(1) && runs(2));
}

class DaemonKernelExtensionsLong : public DaemonKernelExtensions {};

// Each evaluation of the service tries the extension again. These tries must not add up.
TEST_F(DaemonKernelExtensionsLong, AnExtensionThatStaysTooOldHoldsUpNobody) {
  expectUseless("<key>ControlVersion</key><integer>4</integer>");
  const std::string evaluated = "Evaluating service: " + DaemonRoot::label(0) + "\n";
  const std::size_t before = root_.logCount(evaluated);
  for (std::size_t round = 1; round <= 5; ++round) {
    root_.awaitLog(evaluated, before + round);
    UserInterfaceClient client(root_);
    for (int question = 0; question < 20; ++question) EXPECT_TRUE(client.ask("services"));
    EXPECT_LE(root_.logCount(evaluated), before + round + 1);
  }
  EXPECT_TRUE(runs(1) && runs(2));
}

TEST_F(DaemonKernelExtensions, AnExtensionThatNeverListensFailsInTime) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther, "<key>ControlIsDeaf</key><true/>");
  beginToStart();
  for (const int service : {0, 1}) {
    root_.awaitLog("Failed to load kext for " + DaemonRoot::label(service) + "\n");
    EXPECT_FALSE(runs(service));
  }
  root_.await("the service that needs no extension", [&] { return runs(2); });
  root_.awaitLog("its control does not listen after 5 s");
  root_.awaitLog("job \"kext.com.example.nke.files\": removed");
  root_.awaitLog("Unable to unload kext 'com.example.nke.files'.");
  root_.awaitLog("Failed to load kext 'com.example.nke.files'", 2);
}

TEST_F(DaemonKernelExtensions, AModuleIsLoadedBesideTheProgramOfItsControl) {
  constexpr char kModule[] = "dummy";
  KmodModules modules;
  if (modules.isLoaded(kModule)) GTEST_SKIP() << "the module \"dummy\" is in use here";
  if (const auto loaded = modules.load(kModule); !loaded) {
    GTEST_SKIP() << "no module can be loaded here: " << describe(loaded.error());
  }
  ASSERT_TRUE(modules.unload(kModule));
  installExtension(root_, kNetwork);
  installExtension(root_, kOther, "<key>OSKernelModule</key><string>dummy</string>");
  start();
  EXPECT_TRUE(runs(0) && runs(1) && runs(2));
  EXPECT_TRUE(modules.isLoaded(kModule));
  EXPECT_EQ(kextunload({"-b", kOther}), std::pair(0, std::string()));
  EXPECT_FALSE(modules.isLoaded(kModule));
}

TEST_F(DaemonKernelExtensions, AModuleThatCannotBeLoadedIsTheReason) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther, "<key>OSKernelModule</key><string>vantor_test_none</string>");
  start();
  EXPECT_FALSE(runs(0) || runs(1));
  EXPECT_TRUE(runs(2));
  EXPECT_EQ(extension(kOther), 0);
  root_.awaitLog("the kernel module \"vantor_test_none\"");
}

TEST_F(DaemonKernelExtensions, AHungExtensionIsKilled) {
  installExtension(root_, kNetwork, "<key>ControlHangs</key><true/>");
  installExtension(root_, kOther);
  start();
  EXPECT_FALSE(runs(0));
  EXPECT_TRUE(runs(1) && runs(2));
  EXPECT_EQ(extension(kNetwork), 0);
  root_.awaitLog("Failed to load kext 'com.vantor.nke.wfk'");
}

TEST_F(DaemonKernelExtensions, AChangedExtensionIsNotStarted) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  root_.folder().write(std::string("Library/Extensions/") + kOther + ".kext/Contents/added", "");
  start();
  EXPECT_FALSE(runs(0) || runs(1));
  EXPECT_EQ(extension(kOther), 0);
  root_.awaitLog("was added after the bundle was sealed");
}

TEST_F(DaemonKernelExtensions, AKilledExtensionEndsNoService) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  for (const char* identifier : {kNetwork, kOther}) {
    const ProcessId process = extension(identifier);
    ASSERT_GT(process, 0);
    killAndAwait(process);
    EXPECT_FALSE(connectToControl(controls_, identifier));
  }
  EXPECT_TRUE(runs(0) && runs(1) && runs(2));
  EXPECT_TRUE(UserInterfaceClient(root_).ask("services"));
}

TEST_F(DaemonKernelExtensions, TheProgramUnloadsByIdentifierAndByPath) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  const auto run = [&](std::vector<std::string> arguments) {
    return kextunload(std::move(arguments));
  };
  {
    const auto client = connectToControl(controls_, kOther);
    ASSERT_TRUE(client);
    EXPECT_FALSE((*client)->setOption(1, {}));  // The option has been accepted.
    const auto inUse = run({"-b", kOther});
    EXPECT_EQ(inUse.first, 1);
    EXPECT_THAT(inUse.second, HasSubstr("com.example.nke.files: can't be unloaded: Device or "
                                        "resource busy"));
  }
  EXPECT_EQ(run({"-b", kOther}), std::pair(0, std::string()));
  EXPECT_EQ(extension(kOther), 0);
  EXPECT_EQ(run({root_.folder().path(std::string("Library/Extensions/") + kNetwork + ".kext")}),
            std::pair(0, std::string()));
  EXPECT_EQ(extension(kNetwork), 0);
  const auto again = run({"-b", kOther});
  EXPECT_EQ(again.first, 1);
  EXPECT_THAT(again.second, HasSubstr("is not loaded"));
  EXPECT_EQ(run({}).first, 2);
  EXPECT_EQ(run({"-b"}).first, 2);
  EXPECT_EQ(run({"/no/such.kext"}).first, 1);
}

// The real loader on a real job host; the daemon is not needed.
class RealExtensionsMachine final : public ExtensionsMachine {
 public:
  RealExtensionsMachine() {
    installExtension(root_, kGood);
    installExtension(root_, kSilent, "<key>ControlIsDeaf</key><true/>");
  }
  KernelExtensions& extensions() override { return extensions_; }
  KernelControls& controls() override { return controls_; }

 private:
  DaemonRoot root_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  std::unique_ptr<LinuxCodeSignatures> signatures_ =
      LinuxCodeSignatures::create(root_.path(), [this] { return root_.loop().wallTime(); }).value();
  LinuxKernelControls controls_{root_.path()};
  KmodModules modules_;
  LinuxKernelExtensions extensions_{
      {root_.loop(), root_.jobs(), *signatures_, controls_, modules_, log_},
      LinuxKernelExtensions::folders(root_.path(), root_.folder().path("resources"))};
};

std::unique_ptr<ExtensionsMachine> makeRealExtensionsMachine() {
  return std::make_unique<RealExtensionsMachine>();
}

INSTANTIATE_TEST_SUITE_P(DaemonRoot, KernelExtensionsContract,
                         testing::Values(&makeRealExtensionsMachine));

}  // namespace
}  // namespace platform
