// Extensions that fail in different ways, and the reactions of the daemon and the operator's
// command.

#include <csignal>
#include <fstream>
#include <functional>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "Tests/EndToEnd/DaemonExtensions_fixture.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::HasSubstr;

class DaemonExtensionFaults : public DaemonExtensionsFixture {
 protected:
  std::string bundleOf(const char* identifier) const {
    return root_.folder().path(std::string("Library/Extensions/") + identifier + ".kext");
  }
  void changeProgramOf(const char* identifier) {
    const std::string program = bundleOf(identifier) + "/Contents/Linux/extension";
    // A running program can't be written to.
    std::filesystem::copy_file(program, program + ".new");
    std::ofstream(program + ".new", std::ios::app) << "and more";
    std::filesystem::rename(program + ".new", program);
  }
  // The output of "servicemanagerctl extensions".
  std::string report() {
    const auto finished = root_.host().control({"extensions"});
    EXPECT_EQ(finished.status, ExitStatus{}) << finished.errors;
    return finished.output;
  }
  static std::string textOf(const Value& value) { return value.string() ? *value.string() : ""; }
};

TEST_F(DaemonExtensionFaults, AnExtensionThatCrashesFails) {
  expectUseless("<key>ControlCrashes</key><true/>");
}

TEST_F(DaemonExtensionFaults, AShortAnswerFails) {
  expectUseless("<key>ControlAnswerBytes</key><integer>3</integer>");
}

TEST_F(DaemonExtensionFaults, AnOversizedAnswerFails) {
  expectUseless("<key>ControlAnswerBytes</key><integer>4097</integer>");
}

TEST_F(DaemonExtensionFaults, ALongAnswerWithARecentVersionSucceeds) {
  installExtension(root_, kNetwork, "<key>ControlAnswerBytes</key><integer>4096</integer>");
  installExtension(root_, kOther);
  start();
  EXPECT_TRUE(runs(0) && runs(1) && runs(2));
  root_.awaitLog("has been told");
}

TEST_F(DaemonExtensionFaults, AnExtensionInUseIsNotUnloaded) {
  installExtension(root_, kNetwork, "<key>ControlVersion</key><integer>4</integer>");
  installExtension(root_, kOther);
  // It runs, and is used, before the daemon starts.
  const auto submitted = root_.jobs().SMJobSubmit(
      kSMDomainSystemLaunchd,
      Dictionary{{"Label", LinuxKernelExtensions::jobLabel(kNetwork)},
                 {"Program", bundleOf(kNetwork) + "/Contents/Linux/extension"},
                 {"KeepAlive", true},
                 {"ExitTimeOut", 1}},
      nullptr);
  ASSERT_TRUE(submitted) << submitted.error().localizedDescription;
  root_.awaitLog("at work");
  const ProcessId process = extension(kNetwork);
  const auto client = connectToControl(controls_, kNetwork);
  ASSERT_TRUE(client) << describe(client.error());
  EXPECT_TRUE((*client)->ping());  // The client has been accepted.
  start();
  EXPECT_FALSE(runs(0));
  EXPECT_TRUE(runs(1) && runs(2));
  root_.awaitLog("com.vantor.nke.wfk: can't be unloaded");
  root_.awaitLog("Unable to unload kext 'com.vantor.nke.wfk'.");
  root_.awaitLog("Failed to load kext 'com.vantor.nke.wfk'");
  EXPECT_EQ(extension(kNetwork), process);
  EXPECT_TRUE((*client)->ping());
}

// It restarts without a secret; nothing checks it until one of its services has stopped.
TEST_F(DaemonExtensionFaults, AKilledExtensionGetsTheSecretAtTheNextStart) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  root_.awaitLog("has been told");
  EXPECT_EQ(facts()["net"]["IsConfigured"], Value(true));
  killAndAwait(extension(kNetwork));
  EXPECT_EQ(facts()["net"]["IsConfigured"], Value(false));
  askFor("stopServices:", 0);
  askFor("startServices:", 0);
  root_.awaitLog("has been told", 2);
  EXPECT_EQ(facts()["net"]["IsConfigured"], Value(true));
  expectToHaveTheSecret();
  EXPECT_TRUE(UserInterfaceClient(root_).ask("services"));
  EXPECT_TRUE(runs(0) && runs(1) && runs(2));
}

// Its services are stopped and started for it, which takes some seconds.
class DaemonExtensionFaultsLong : public DaemonExtensionFaults {
 protected:
  void startExtensions() {
    installExtension(root_, kNetwork);
    installExtension(root_, kOther);
    start();
  }
  // Expects that the new extension and its services run.
  void expectReplacement(ProcessId before) {
    root_.await("the new extension", [&] {
      const ProcessId now = extension(kOther);
      return now != 0 && now != before;
    });
    const auto executed = "/proc/" + std::to_string(extension(kOther)) + "/exe";
    EXPECT_TRUE(
        std::filesystem::equivalent(executed, bundleOf(kOther) + "/Contents/Linux/extension"));
    root_.await("its services", [&] { return runs(0) && runs(1); });
  }
};

TEST_F(DaemonExtensionFaultsLong, AReplacedExtensionIsLoadedAfterACrash) {
  startExtensions();
  const ProcessId before = extension(kOther);
  installExtension(root_, kOther);
  killAndAwait(before);
  expectReplacement(before);
}

// The host that finds the other program has no client yet that it could tell.
TEST_F(DaemonExtensionFaultsLong, AnExtensionReplacedBesideAHostsRestartIsLoaded) {
  startExtensions();
  const ProcessId before = extension(kOther);
  root_.host().killHost();
  installExtension(root_, kOther);
  killAndAwait(before);
  root_.host().startHost();
  expectReplacement(before);
}

// Extensions outlive the daemon; the next daemon has another secret and does not know them.
TEST_F(DaemonExtensionFaults, ARestartedDaemonSendsItsNewSecret) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  root_.awaitLog("has been told");
  const Data before = secret();
  const ProcessId process = extension(kNetwork);
  root_.killDaemon();
  root_.awaitStart();
  root_.awaitLog("has been told", 2);
  EXPECT_NE(secret(), before);
  expectToHaveTheSecret();
  EXPECT_EQ(extension(kNetwork), process);
}

TEST_F(DaemonExtensionFaults, TheReportFollowsEveryChangeOfAnExtension) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  const ProcessId process = extension(kOther);
  ASSERT_GT(process, 0);
  const std::string running = "process " + std::to_string(process);
  const auto expectRunning = [&](Value fact) {
    // On a slow machine it may once answer too late.
    for (int i = 0; i < 20 && fact["IsAnswering"] != Value(true); ++i) fact = facts()["files"];
    EXPECT_EQ(fact["PID"], Value(process));
    EXPECT_EQ(fact["IsLoaded"], Value(true));
    EXPECT_EQ(fact["IsAnswering"], Value(true));
    EXPECT_EQ(fact["IsConfigured"], Value(true));
  };
  Value fact = facts()["files"];
  expectRunning(fact);
  EXPECT_EQ(fact["Path"], Value(bundleOf(kOther)));
  EXPECT_TRUE(fact["Fault"].isNil());

  ASSERT_EQ(::kill(process, SIGSTOP), 0);  // It hangs.
  fact = facts()["files"];
  EXPECT_EQ(fact["IsConnected"], Value(true));
  EXPECT_EQ(fact["IsAnswering"], Value(false));
  EXPECT_THAT(report(), AllOf(HasSubstr(running), HasSubstr("no answer")));
  ASSERT_EQ(::kill(process, SIGCONT), 0);
  expectRunning(facts()["files"]);

  changeProgramOf(kOther);
  fact = facts()["files"];
  expectRunning(fact);  // The running program is the signed one.
  EXPECT_THAT(textOf(fact["Fault"]), HasSubstr("Contents/Linux/extension"));
  EXPECT_THAT(report(), AllOf(HasSubstr("damaged"), HasSubstr(running)));

  installExtension(root_, kOther);
  root_.folder().write(std::string("Library/Extensions/") + kOther + ".kext/Contents/Info.plist",
                       "garbage");
  fact = facts()["files"];
  expectRunning(fact);
  EXPECT_TRUE(fact["Path"].isNil());
  EXPECT_EQ(fact["LoadedPath"], Value(bundleOf(kOther)));
  EXPECT_THAT(textOf(fact["Fault"]), HasSubstr("there is no such extension (" + bundleOf(kOther)));

  installExtension(root_, kOther);
  const std::string again = installExtensionAt(root_, "Library/Extensions/A.kext", kOther);
  fact = facts()["files"];
  expectRunning(fact);
  EXPECT_TRUE(fact["Path"].isNil());
  EXPECT_THAT(textOf(fact["Fault"]), HasSubstr("both claim to be it"));
  std::filesystem::remove_all(again);

  std::filesystem::create_symlink("Circle.kext",
                                  root_.folder().path("Library/Extensions/Circle.kext"));
  fact = facts()["files"];
  expectRunning(fact);
  EXPECT_TRUE(fact["Fault"].isNil());

  std::filesystem::remove_all(bundleOf(kOther));
  fact = facts()["files"];
  expectRunning(fact);
  EXPECT_TRUE(fact["Path"].isNil());
  EXPECT_THAT(textOf(fact["Fault"]), HasSubstr("there is no such extension"));
  EXPECT_THAT(report(), HasSubstr("was loaded from " + bundleOf(kOther)));
  // The other extension is not affected.
  EXPECT_TRUE(facts()["net"]["Fault"].isNil());
}

TEST_F(DaemonExtensionFaults, TheReportShowsAKilledExtensionsJob) {
  installExtension(root_, kNetwork);
  installExtension(root_, kOther);
  start();
  killAndAwait(extension(kOther));
  const ProcessId before = extension(kOther);
  const Value fact = facts()["files"];
  // The host starts it again, perhaps in between.
  EXPECT_TRUE(fact["PID"] == Value(before) || fact["PID"] == Value(extension(kOther)));
  EXPECT_EQ(fact["IsLoaded"], Value(true));
  EXPECT_EQ(fact["IsConfigured"], Value(false));
}

// A valid signature does not make a bundle the one that its Info.plist claims to be.
TEST_F(DaemonExtensionFaults, ABundleWithAnothersIdentifierIsNotStarted) {
  installExtension(root_, kOther);
  const std::string bundle =
      installExtensionAt(root_, "Library/Extensions/Claims.kext", "com.example.nke.claims");
  root_.folder().write("Library/Extensions/Claims.kext/Contents/Info.plist",
                       std::string("<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>"
                                   "<string>") +
                           kNetwork +
                           "</string><key>CFBundleExecutable</key><string>extension</string>"
                           "</dict></plist>");
  start();
  EXPECT_FALSE(runs(0));
  EXPECT_TRUE(runs(1) && runs(2));
  EXPECT_EQ(extension(kNetwork), 0);
  EXPECT_EQ(root_.logCount("has been told"), 0u);
  root_.awaitLog(bundle + "/Contents/Info.plist");
  // Nor without the seal that shows this.
  std::filesystem::remove_all(bundle + "/Contents/_CodeSignature");
  EXPECT_THAT(textOf(facts()["net"]["Fault"]), HasSubstr("the bundle has no seal"));
}

// Releases before 10.7 unload by a program.
class DaemonOldRelease : public DaemonExtensionsFixture {
 protected:
  DaemonOldRelease() {
    const std::string file = root_.folder().path("etc/vantor/platform.plist");
    std::string content;
    std::getline(std::ifstream(file), content, '\0');
    content.replace(content.find("<dict>"), 6,
                    "<dict><key>KernelRelease</key><string>10.8.0</string>");
    root_.folder().write("etc/vantor/platform.plist", content);
    // Records its arguments, and then does its work.
    const std::string program = root_.folder().path("sbin/kextunload.real");
    std::filesystem::create_directories(root_.folder().path("sbin"));
    std::filesystem::copy_file(KEXTUNLOAD, program);
    const std::string script =
        root_.folder().write("sbin/kextunload", "#!/bin/sh\nprintf '%s\\n' \"$*\" >>" + calls() +
                                                    "\nexec " + program + " \"$@\"\n");
    EXPECT_EQ(::chmod(script.c_str(), 0755), 0);
  }
  std::string calls() const { return root_.folder().path("kextunload.calls"); }
  std::string firstCall() const {
    std::string line;
    std::getline(std::ifstream(calls()), line);
    return line;
  }
  void expectUnloadedAndLoadedAgain() {
    EXPECT_FALSE(runs(0));
    EXPECT_TRUE(runs(1) && runs(2));
    EXPECT_EQ(root_.logCount("Unable to unload kext"), 0u);
    root_.awaitLog("was started 3 times within a minute");
    EXPECT_EQ(extension(kNetwork), 0);
  }
};

TEST_F(DaemonOldRelease, UnloadsByTheProgramAndTheIdentifier) {
  installExtension(root_, kNetwork, "<key>ControlVersion</key><integer>4</integer>");
  installExtension(root_, kOther);
  start();
  EXPECT_EQ(firstCall(), std::string("-b ") + kNetwork);
  expectUnloadedAndLoadedAgain();
}

TEST_F(DaemonOldRelease, UnloadsOneOfItsOwnResourcesByItsPath) {
  const std::string bundle = installExtensionAt(
      root_,
      std::string("Library/ServiceManager/ServiceManager.bundle/Contents/Resources/") + kNetwork +
          ".kext",
      kNetwork, "<key>ControlVersion</key><integer>4</integer>");
  installExtension(root_, kOther);
  start();
  EXPECT_EQ(firstCall(), bundle);
  expectUnloadedAndLoadedAgain();
}

}  // namespace
}  // namespace platform
