// "servicemanagerctl support-bundle" beside a real daemon and without one.

#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/DaemonRoot.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

class DaemonSupport : public testing::Test {
 protected:
  DaemonSupport() { root_.setCatalogue(DaemonRoot::catalogue(1)); }

  void start() {
    root_.startDaemon();
    root_.awaitStart();
    root_.awaitLog("Evaluating service: " + DaemonRoot::label(0) + "\n");
  }

  std::string file() const { return root_.folder().path("bundle.tar.gz"); }

  // A file of the bundle, by the program that its reader will use.
  std::string inBundle(const std::string& name) {
    ChildProgram tar({"/usr/bin/tar", "-xzOf", file(), "vantor-support/" + name}, {});
    EXPECT_EQ(tar.waitForExit(), exited(0));
    return tar.restOfOutput();
  }

  DaemonRoot root_;
};

TEST_F(DaemonSupport, ABundleHasListsFindingsAndLogs) {
  start();
  const auto made = root_.host().control({"support-bundle", file()});
  EXPECT_EQ(made.status, exited(0)) << made.errors;
  EXPECT_THAT(made.output, Not(HasSubstr("missing")));
  struct stat status{};
  ASSERT_EQ(::stat(file().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0600u);
  const std::string contents = inBundle("CONTENTS.txt");
  for (const char* name :
       {"versions.json", "doctor.json", "platform.json", "platform.plist", "services.json",
        "health.json", "extensions.json", "explain.json", "jobs.json", "log/system.log"})
    EXPECT_THAT(contents, HasSubstr(name));
  EXPECT_THAT(inBundle("services.json"), HasSubstr(DaemonRoot::label(0)));
  EXPECT_THAT(inBundle("explain.json"), HasSubstr("\"verdict\""));
  EXPECT_THAT(inBundle("jobs.json"), HasSubstr(DaemonRoot::kDaemon));
  EXPECT_THAT(inBundle("log/system.log"), HasSubstr("Evaluating service: "));
}

TEST_F(DaemonSupport, WithoutADaemonTheBundleSaysWhatIsMissing) {
  const auto made = root_.host().control({"support-bundle", file(), "--json"});
  EXPECT_EQ(made.status, exited(0)) << made.errors;
  EXPECT_THAT(made.output, ContainsRegex("\"missing\": \"the service manager does not serve"));
  EXPECT_THAT(inBundle("CONTENTS.txt"), ContainsRegex("services.json +missing"));
  EXPECT_THAT(inBundle("jobs.json"), HasSubstr(DaemonRoot::kBus));
}

TEST_F(DaemonSupport, WithoutAJobHostThereAreFindingsAndLogs) {
  start();
  root_.host().killHost();
  const auto made = root_.host().control({"support-bundle", file()});
  EXPECT_EQ(made.status, exited(0)) << made.errors;
  EXPECT_THAT(made.output, ContainsRegex("jobs.json +missing"));
  EXPECT_THAT(inBundle("doctor.json"), HasSubstr("host-absent"));
  EXPECT_THAT(inBundle("log/system.log"), HasSubstr("Evaluating service: "));
  root_.host().startHost();
}

TEST_F(DaemonSupport, AnExistingFileOrLinkStaysAsItIs) {
  const std::string target = root_.folder().write("target", "kept");
  std::filesystem::create_symlink(target, file());
  const auto made = root_.host().control({"support-bundle", file()});
  EXPECT_EQ(made.status, exited(kFailed));
  EXPECT_THAT(made.errors, HasSubstr("File exists"));
  EXPECT_EQ(std::filesystem::file_size(target), 4u);
}

TEST_F(DaemonSupport, AnUnusableConfigurationIsInTheBundle) {
  root_.folder().write("etc/vantor/platform.plist", "<plist version=\"1.0\"><array/></plist>");
  const auto made = root_.host().control({"support-bundle", file()});
  EXPECT_EQ(made.status, exited(0)) << made.errors;
  EXPECT_THAT(inBundle("doctor.json"), HasSubstr("platform-unusable"));
}

}  // namespace
}  // namespace platform
