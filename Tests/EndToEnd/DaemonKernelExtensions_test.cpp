// Real extensions: loaded by the daemon as jobs, told the secret, too old, deaf and hung.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "Platform/Digest.h"
#include "Platform/KernelExtensions_contract.h"
#include "Platform/Linux/CodeSigner.h"
#include "Platform/Linux/ControlMessages.h"
#include "Platform/Linux/KmodModules.h"
#include "Platform/Linux/LinuxKernelControls.h"
#include "Platform/Linux/LinuxKernelExtensions.h"
#include "Platform/Testing/CodeSigningBed.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/UserInterfaceClient.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

constexpr char kNetwork[] = "com.vantor.nke.wfk";
constexpr char kOther[] = "com.example.nke.files";

const SigningOptions& signing() {
  static const SigningOptions options{"com.example.nke",
                                      std::chrono::sys_days{std::chrono::January / 1 / 2025}};
  return options;
}

// Puts a signed extension into the root; `keys` go into its Info.plist.
void install(const DaemonRoot& root, const std::string& identifier, const std::string& keys = "") {
  const std::string bundle = "Library/Extensions/" + identifier + ".kext";
  std::filesystem::remove_all(root.folder().path(bundle));
  root.folder().write(bundle + "/Contents/Info.plist",
                      "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" +
                          identifier +
                          "</string><key>CFBundleExecutable</key><string>extension</string>" +
                          keys + "</dict></plist>");
  const std::string program = root.folder().path(bundle + "/Contents/Linux/extension");
  std::filesystem::create_directories(std::filesystem::path(program).parent_path());
  std::filesystem::copy_file(EXTENSION, program);
  const auto isSigned = signProgram(program, CodeSigningBed::signer(), signing());
  EXPECT_TRUE(isSigned) << describe(isSigned.error());
  const auto isSealed = signBundle(root.folder().path(bundle), CodeSigningBed::signer(), signing());
  EXPECT_TRUE(isSealed) << describe(isSealed.error());
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

class DaemonKernelExtensions : public testing::Test {
 protected:
  // Service 0 needs the network extension, which is to get the secret, and the other one; service 1
  // the other one, service 2 none.
  void beginToStart() {
    Dictionary catalogue = DaemonRoot::catalogue(3);
    Dictionary services = *catalogue["Services"].dictionary();
    const auto need = [&](int service, Array extensions) {
      Dictionary entry = *services[DaemonRoot::label(service)].dictionary();
      entry.set("KernelExtensions", std::move(extensions));
      services.set(DaemonRoot::label(service), std::move(entry));
    };
    need(0, {"net", "files"});
    need(1, {"files"});
    catalogue.set("Services", std::move(services));
    catalogue.set(
        "KernelExtensions",
        Dictionary{{"net", Dictionary{{"Identifier", kNetwork}, {"Options", Array{"secure"}}}},
                   {"files", Dictionary{{"Identifier", kOther}, {"Options", Array{"secure"}}}}});
    root_.setCatalogue(catalogue);
    root_.startDaemon();
  }
  // Returns when all has been evaluated.
  void start() {
    beginToStart();
    root_.awaitStart();
    root_.awaitLog("Evaluating service: " + DaemonRoot::label(2) + "\n");
    // The daemon serves nobody until it has done what it has said it is doing.
    EXPECT_TRUE(UserInterfaceClient(root_).ask("services"));
  }

  Data secret() {
    const auto key =
        UserInterfaceClient(root_, UserInterfaceClient::kAuthServer).ask("retrieveKey");
    const Data* const bytes = key ? key->data() : nullptr;
    EXPECT_TRUE(bytes);
    return bytes ? *bytes : Data();
  }
  ProcessId extension(const std::string& identifier) {
    return root_.processOf(LinuxKernelExtensions::jobLabel(identifier));
  }
  bool runs(int service) { return root_.processOf(DaemonRoot::label(service)) != 0; }

  DaemonRoot root_;
  LinuxKernelControls controls_{root_.path(), 60s};
};

TEST_F(DaemonKernelExtensions, TheNetworkExtensionProvesThatItHasTheSecret) {
  install(root_, kNetwork);
  install(root_, kOther);
  start();
  EXPECT_TRUE(runs(0) && runs(1) && runs(2));
  EXPECT_GT(extension(kNetwork), 0);
  EXPECT_GT(extension(kOther), 0);
  root_.awaitLog("has been told");
  EXPECT_EQ(root_.logCount("has been told"), 1u);

  const auto control = connectToControl(controls_, kNetwork);
  ASSERT_TRUE(control) << describe(control.error());
  const Data challenge{7, 7, 7};
  ASSERT_TRUE((*control)->setOption(6, challenge));
  const auto answer = (*control)->getIntegerOption(7);
  ASSERT_TRUE(answer) << describe(answer.error());
  EXPECT_EQ(answer->length, 32u);
  const Data key = secret();
  std::array<unsigned char, 32> expected{};
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), challenge.data(), challenge.size(),
       expected.data(), nullptr);
  std::int32_t first = 0;
  std::memcpy(&first, expected.data(), sizeof first);
  EXPECT_EQ(answer->value, first);
}

TEST_F(DaemonKernelExtensions, TheSecretIsInNoFileNoLogAndNoArgumentList) {
  install(root_, kNetwork);
  install(root_, kOther);
  start();
  root_.awaitLog("has been told");
  const Data bytes = secret();
  ASSERT_EQ(bytes.size(), 8u);
  const std::string raw(bytes.begin(), bytes.end());
  const std::string hexadecimal = hexadecimalText(bytes);
  const auto expectAbsent = [&](const std::filesystem::path& path) {
    const std::string content = contentOf(path);
    EXPECT_EQ(content.find(raw), content.npos) << path;
    EXPECT_EQ(content.find(hexadecimal), content.npos) << path;
  };
  int files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_.path())) {
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    expectAbsent(entry.path());
    ++files;
  }
  EXPECT_GT(files, 10);
  for (const ProcessId process : {root_.processOf(DaemonRoot::kDaemon), extension(kNetwork)}) {
    ASSERT_GT(process, 0);
    const std::string folder = "/proc/" + std::to_string(process);
    expectAbsent(folder + "/cmdline");
    expectAbsent(folder + "/environ");
  }
}

TEST_F(DaemonKernelExtensions, OneThatIsAlwaysTooOldFailsInTheEndAndTheDaemonLives) {
  install(root_, kNetwork, "<key>ControlVersion</key><integer>4</integer>");
  install(root_, kOther);
  start();
  EXPECT_FALSE(runs(0));
  EXPECT_TRUE(runs(1) && runs(2));
  EXPECT_EQ(root_.logCount("Failed to load kext 'com.vantor.nke.wfk'"), 1u);
  EXPECT_EQ(root_.logCount("was started 3 times within a minute"), 1u);
  EXPECT_EQ(root_.logCount("has been told"), 0u);
  // The service that needs it is evaluated again five seconds later, and so are no others.
  root_.awaitLog("Evaluating service: " + DaemonRoot::label(0) + "\n", 2);
}

// Meanwhile the daemon is blocked again and again, so that only the log tells what it does.
TEST_F(DaemonKernelExtensions, OneThatNeverListensFailsWithinItsBound) {
  install(root_, kNetwork);
  install(root_, kOther, "<key>ControlIsDeaf</key><true/>");
  beginToStart();
  for (const int service : {0, 1}) {
    root_.awaitLog("Failed to load kext for " + DaemonRoot::label(service) + "\n");
    EXPECT_FALSE(runs(service));
  }
  root_.await("the service that needs no extension", [&] { return runs(2); });
  EXPECT_GE(root_.logCount("its control does not listen after 5 s"), 1u);
  EXPECT_GE(root_.logCount("job \"kext.com.example.nke.files\": removed"), 1u);
  EXPECT_GE(root_.logCount("Unable to unload kext 'com.example.nke.files'."), 1u);
  EXPECT_GE(root_.logCount("Failed to load kext 'com.example.nke.files'"), 2u);
}

TEST_F(DaemonKernelExtensions, OneThatHangsIsEndedByForceAndTheDaemonLives) {
  install(root_, kNetwork, "<key>ControlHangs</key><true/>");
  install(root_, kOther);
  start();
  EXPECT_FALSE(runs(0));
  EXPECT_TRUE(runs(1) && runs(2));
  EXPECT_EQ(extension(kNetwork), 0);
  EXPECT_EQ(root_.logCount("Failed to load kext 'com.vantor.nke.wfk'"), 1u);
}

TEST_F(DaemonKernelExtensions, AChangedExtensionIsNotStarted) {
  install(root_, kNetwork);
  install(root_, kOther);
  root_.folder().write(std::string("Library/Extensions/") + kOther + ".kext/Contents/added", "");
  start();
  EXPECT_FALSE(runs(0) || runs(1));
  EXPECT_EQ(extension(kOther), 0);
  EXPECT_GE(root_.logCount("was added after the bundle was sealed"), 1u);
}

TEST_F(DaemonKernelExtensions, OneThatIsKilledTakesNoServiceWithIt) {
  install(root_, kNetwork);
  install(root_, kOther);
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
  install(root_, kNetwork);
  install(root_, kOther);
  start();
  const std::string program = root_.folder().path("sbin/kextunload");
  std::filesystem::create_directories(root_.folder().path("sbin"));
  std::filesystem::copy_file(KEXTUNLOAD, program);
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), program);
    ChildProgram child(std::move(arguments), {});
    const int code = child.waitForExit().number;
    return std::pair(code, child.errors());
  };
  {
    const auto client = connectToControl(controls_, kOther);
    ASSERT_TRUE(client);
    EXPECT_FALSE((*client)->setOption(1, {}));  // It has been accepted.
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
class RealMachine final : public ExtensionsMachine {
 public:
  RealMachine() {
    install(root_, kGood);
    install(root_, kSilent, "<key>ControlIsDeaf</key><true/>");
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

std::unique_ptr<ExtensionsMachine> makeMachine() { return std::make_unique<RealMachine>(); }

INSTANTIATE_TEST_SUITE_P(DaemonRoot, KernelExtensionsContract, testing::Values(&makeMachine));

}  // namespace
}  // namespace platform
