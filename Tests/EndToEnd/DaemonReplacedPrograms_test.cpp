// A service's program is replaced while it runs, as an upgrade does and as an attacker would.

#include <csignal>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

class DaemonReplacedPrograms : public DaemonFixture {
 protected:
  // Puts another file with the same content in the place of the services' program.
  void replace(void (*prepare)(const std::string& program)) {
    const std::string next = root_.folder().path("opt/next");
    std::filesystem::copy_file(JOB_PROGRAM, next);
    prepare(next);
    std::filesystem::rename(next, program());
  }
  std::string program() const { return root_.folder().path("opt/agent"); }

  static std::uint64_t inodeOf(const std::string& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
  }
  // The program that the service's process executes.
  std::uint64_t inodeOfProcess() {
    return inodeOf("/proc/" + std::to_string(root_.processOf(kService)) + "/exe");
  }

  // The service's process is killed, and the next one runs.
  void killService() {
    const ProcessId before = root_.processOf(kService);
    root_.kill(kService, SIGKILL);
    root_.await("the next process", [&] {
      const ProcessId now = root_.processOf(kService);
      return now != 0 && now != before;
    });
  }

  const std::string kService = DaemonRoot::label(0);
};

TEST_F(DaemonReplacedPrograms, ASignedReplacementRunsAfterTheOldProcess) {
  start(1);
  const std::uint64_t old = inodeOf(program());
  EXPECT_EQ(inodeOfProcess(), old);
  killService();  // The host starts the same file again.
  EXPECT_EQ(inodeOfProcess(), old);
  replace(&DaemonRoot::sign);
  EXPECT_EQ(inodeOfProcess(), old);
  killService();
  EXPECT_EQ(inodeOfProcess(), inodeOf(program()));
  EXPECT_NE(inodeOfProcess(), old);
}

TEST_F(DaemonReplacedPrograms, AnUnsignedReplacementDoesNotRun) {
  start(1);
  replace([](const std::string&) {});
  root_.kill(kService, SIGKILL);
  root_.awaitLog("Program file for " + kService + " appears to be damaged");
  EXPECT_EQ(root_.processOf(kService), 0);
}

TEST_F(DaemonReplacedPrograms, WithoutTheDaemonAReplacementWaits) {
  start(1);
  root_.remove(DaemonRoot::kDaemon);
  replace(&DaemonRoot::sign);
  killAndAwait(root_.processOf(kService));
  const Value job = root_.jobs().SMJobCopyDictionary(kSMDomainSystemLaunchd, kService);
  EXPECT_EQ(job[kJobProgramChangedKey], Value(true));
  root_.host().killHost();
  root_.host().startHost();
  EXPECT_EQ(root_.processOf(kService), 0);
  root_.expectStart();
  root_.startDaemon();
  root_.await("the daemon to start the service", [&] { return root_.processOf(kService) != 0; });
  EXPECT_EQ(inodeOfProcess(), inodeOf(program()));
}

}  // namespace
}  // namespace platform
