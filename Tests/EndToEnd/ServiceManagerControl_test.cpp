#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/ExitStatuses.h"

namespace platform {
namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;

class ServiceManagerControlTest : public testing::Test {
 protected:
  ServiceManagerControlTest() {
    configure("<key>KernelRelease</key><string>14.5.0</string>");
    std::filesystem::copy_file(SERVICEMANAGERCTL, control_);
    std::filesystem::copy_file(SERVICEMANAGERCTL "-full", control_ + "-full");
  }

  void configure(const std::string& keys) {
    const std::string file = folder_.write(
        "etc/vantor/platform.plist", "<plist version=\"1.0\"><dict>" + keys + "</dict></plist>");
    std::filesystem::permissions(file, std::filesystem::perms(0644));
  }

  std::vector<std::string> logLines() const {
    std::ifstream file(folder_.path("log/system.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  TemporaryFolder folder_;
  const std::string control_ = folder_.path("servicemanagerctl");
};

TEST_F(ServiceManagerControlTest, ReportsThePlatformBelowItsOwnRoot) {
  ChildProgram program({control_, "platform", "--json"}, {});
  EXPECT_EQ(program.waitForExit(), kSuccess);
  const std::string output = program.restOfOutput();
  EXPECT_THAT(output, HasSubstr("\"root\": \"" + folder_.path() + "\""));
  EXPECT_THAT(output, HasSubstr("\"kernelRelease\": \"14.5.0\""));
  EXPECT_THAT(output, HasSubstr("\"logSink\": \"file\""));
  EXPECT_THAT(output, HasSubstr("\"path\": \"" + control_ + "-full\""));
  EXPECT_EQ(program.errors(), "");
}

TEST_F(ServiceManagerControlTest, WritesALineThroughEachLogger) {
  ChildProgram program({control_, "log-test", "hello\nworld"}, {});
  EXPECT_EQ(program.waitForExit(), kSuccess);
  const std::string prefix = "^....-..-..T..:..:..\\.......Z [^ ]+ servicemanagerctl\\[" +
                             std::to_string(program.process()) + "\\] ";
  EXPECT_THAT(
      logLines(),
      ElementsAre(
          ContainsRegex(prefix + "\\(com\\.vantor\\.hostagent\\) <Info> "
                                 "\\[main\\.cpp:[0-9]+\\] hello.*world \\(logger 2\\)$"),
          ContainsRegex(prefix + "\\(com\\.vantor\\.hostagent\\.servicemanagerctl\\) <Info> "
                                 "\\[main\\.cpp:[0-9]+\\] hello.*world \\(logger 1\\)$")));
}

TEST_F(ServiceManagerControlTest, ReportsThatTheLogLostTheLine) {
  std::filesystem::create_directories(folder_.path("log/system.log"));  // a folder, not a file
  ChildProgram program({control_, "log-test", "hello"}, {});
  EXPECT_EQ(program.waitForExit(), exited(kFailed));
  EXPECT_THAT(program.errors(), HasSubstr("the log took 2 of 2 lines not"));
}

TEST_F(ServiceManagerControlTest, ExplainsAnInvalidConfiguration) {
  configure("<key>LogLevel</key><integer>8</integer>");
  ChildProgram program({control_, "platform"}, {});
  EXPECT_EQ(program.waitForExit(), exited(kFailed));
  const std::string errors = program.errors();
  EXPECT_THAT(errors, HasSubstr(folder_.path("etc/vantor/platform.plist")));
  EXPECT_THAT(errors, HasSubstr("LogLevel"));
}

TEST_F(ServiceManagerControlTest, AUsageErrorHasItsOwnStatus) {
  ChildProgram program({control_, "plattform"}, {});
  EXPECT_EQ(program.waitForExit(), exited(kNotUnderstood));
}

}  // namespace
}  // namespace platform
