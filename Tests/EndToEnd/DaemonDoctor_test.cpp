// "servicemanagerctl doctor" beside a real daemon, of which each test breaks one thing.

#include <csignal>
#include <filesystem>
#include <optional>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class DaemonDoctor : public testing::Test {
 protected:
  DaemonDoctor() {
    root_.setCatalogue(DaemonRoot::catalogue(1));
    root_.startDaemon();
    root_.awaitStart();
    root_.awaitLog("Evaluating service: " + DaemonRoot::label(0) + "\n");
  }

  struct Examination {
    ExitStatus status;
    std::string output;
  };
  Examination doctor(const std::vector<std::string>& options = {"--json"}) {
    std::vector<std::string> arguments{root_.folder().path("servicemanagerctl"), "doctor"};
    arguments.insert(arguments.end(), options.begin(), options.end());
    ChildProgram program(arguments, {});
    const ExitStatus status = program.waitForExit();
    return {status, program.restOfOutput() + program.errors()};
  }

  static std::string finding(const std::string& code, const std::string& severity) {
    return "\"code\": \"" + code + "\",\n      \"severity\": \"" + severity + "\"";
  }
  // Expects the finding, and that an error fails the command.
  void expectError(const std::string& code) {
    const Examination found = doctor();
    EXPECT_THAT(found.output, HasSubstr(finding(code, "error")));
    EXPECT_EQ(found.status, exited(kFailed));
  }

  // Stops the job's process, and continues it at the end.
  class Stopped {
   public:
    explicit Stopped(ProcessId process) : process_(process) { ::kill(process_, SIGSTOP); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;
    ~Stopped() { ::kill(process_, SIGCONT); }

   private:
    const ProcessId process_;
  };

  DaemonRoot root_;
};

TEST_F(DaemonDoctor, AHealthyInstallationHasNoError) {
  const Examination found = doctor();
  EXPECT_THAT(found.output, AllOf(HasSubstr("\"version\": 1"), Not(HasSubstr("\"error\""))));
  for (const char* part :
       {"configuration", "host", "daemon", "bus", "sockets", "anchors", "backend", "descriptors"})
    EXPECT_THAT(found.output, HasSubstr(finding(part, "ok")));
  EXPECT_THAT(found.output, Not(HasSubstr("-outdated")));
  EXPECT_THAT(doctor({}).output, ContainsRegex("ok +daemon +The service manager answers\\.\n"));
}

TEST_F(DaemonDoctor, AStoppedDaemonIsHung) {
  const Stopped daemon(root_.processOf(DaemonRoot::kDaemon));
  expectError("daemon-hung");
}

TEST_F(DaemonDoctor, AStoppedBusIsHung) {
  const Stopped bus(root_.processOf(DaemonRoot::kBus));
  expectError("bus-hung");
}

TEST_F(DaemonDoctor, AStoppedJobHostIsHung) {
  const Stopped host(root_.host().hostProcess());
  expectError("host-hung");
}

TEST_F(DaemonDoctor, AnAbsentJobHostIsFound) {
  root_.host().killHost();
  expectError("host-absent");
  root_.host().startHost();
  EXPECT_THAT(doctor().output, HasSubstr(finding("host", "ok")));
}

TEST_F(DaemonDoctor, AnAbsentDaemonIsFound) {
  root_.remove(DaemonRoot::kDaemon);
  expectError("daemon-absent");
}

TEST_F(DaemonDoctor, ASocketForEverybodyIsFound) {
  const std::string socket = root_.folder().path("run/vantor/launchd");
  ASSERT_EQ(::chmod(socket.c_str(), 0666), 0);
  expectError("socket-open");
  ASSERT_EQ(::chmod(socket.c_str(), 0600), 0);
}

TEST_F(DaemonDoctor, AFolderThatOthersMayWriteIsFound) {
  const std::string folder = root_.folder().path("run/vantor/mach");
  ASSERT_EQ(::chmod(folder.c_str(), 0777), 0);
  expectError("folder-open");
  ASSERT_EQ(::chmod(folder.c_str(), 0755), 0);
}

TEST_F(DaemonDoctor, MissingAnchorsAreFound) {
  std::filesystem::remove(root_.folder().path("etc/vantor/anchors/authority.pem"));
  expectError("anchors-none");
}

TEST_F(DaemonDoctor, AnotherInstalledProgramIsFound) {
  // A copy is another file.
  const std::string installed = root_.daemonProgram();
  std::filesystem::copy_file(installed, installed + ".new");
  std::filesystem::rename(installed + ".new", installed);
  EXPECT_THAT(doctor().output, HasSubstr(finding("daemon-outdated", "warning")));
}

TEST_F(DaemonDoctor, AMissingCatalogueIsFound) {
  std::filesystem::remove(root_.folder().path(
      "Library/ServiceManager/ServiceManager.bundle/Contents/Resources/Service.plist"));
  expectError("installation-incomplete");
}

TEST_F(DaemonDoctor, AnUnusableConfigurationIsTheOnlyFinding) {
  root_.folder().write("etc/vantor/platform.plist", "<plist version=\"1.0\"><array/></plist>");
  const Examination found = doctor();
  EXPECT_THAT(found.output, HasSubstr(finding("platform-unusable", "error")));
  EXPECT_THAT(found.output, Not(HasSubstr("\"code\": \"host")));
  EXPECT_EQ(found.status, exited(kFailed));
}

TEST_F(DaemonDoctor, AMissingGroupIsFound) {
  root_.folder().write("etc/vantor/platform.plist",
                       "<plist version=\"1.0\"><dict><key>Group</key>"
                       "<string>no-such-group-of-this-machine</string></dict></plist>");
  expectError("group-missing");
}

}  // namespace
}  // namespace platform
