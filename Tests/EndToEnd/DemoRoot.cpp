#include "Tests/EndToEnd/DemoRoot.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include <gtest/gtest.h>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ExitStatuses.h"
#include "Tests/EndToEnd/JobBackend.h"

namespace platform {
namespace {

JobHostRoot::Finished runToEnd(std::vector<std::string> arguments) {
  ChildProgram program(std::move(arguments), {"PATH=/usr/bin:/bin"});
  const ExitStatus status = program.waitForExit();
  std::string output = program.restOfOutput();
  return {status, std::move(output), program.errors()};
}

}  // namespace

DemoRoot::DemoRoot() {
  const auto made = runToEnd({MAKE_ROOT, path(), "--built", BUILT});
  EXPECT_EQ(made.status, kSuccess) << made.errors;
  if (testsUseSystemd()) {
    const std::string file = path() + "/etc/vantor/platform.plist";
    std::string configuration = contentOfFile(file);
    configuration.insert(configuration.rfind("</dict>"), jobBackendEntry());
    folder_.write("root/etc/vantor/platform.plist", configuration);
  }
  // Follows the log before anything is written to it, so that no line is missed.
  folder_.write("root/log/system.log", "The log begins.\n");
  log_ = std::make_unique<ChildProgram>(std::vector<std::string>{controlProgram(), "log", "-f"},
                                        std::vector<std::string>());
  awaitLog({"The log begins."});
  host_ = std::make_unique<ChildProgram>(std::vector{path() + "/usr/bin/jobhost"},
                                         std::vector{"NOTIFY_SOCKET=" + folder_.path("notify")});
  EXPECT_EQ(readiness_.next(), "READY=1");
  awaitLog({" agent[", " scanner[", " updater["});
}

DemoRoot::~DemoRoot() {
  log_.reset();
  host_->signal(SIGTERM);
  EXPECT_EQ(host_->waitForExit(), kSuccess) << host_->errors();
}

void DemoRoot::awaitLog(std::set<std::string> texts) {
  while (!texts.empty()) {
    const auto line = log_->nextLineIfAny();
    if (!line) {
      ADD_FAILURE() << "the log ended before \"" << *texts.begin() << "\"";
      return;
    }
    std::erase_if(texts, [&](const auto& text) { return line->find(text) != std::string::npos; });
  }
}

JobHostRoot::Finished DemoRoot::control(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), controlProgram());
  return runToEnd(std::move(arguments));
}

ProcessId DemoRoot::processOf(const std::string& label) const {
  const auto shown = control({"jobs", "show", label, "--json"});
  const std::size_t at = shown.output.find("\"pid\": ");
  return at == std::string::npos ? 0 : std::atoi(shown.output.c_str() + at + 7);
}

}  // namespace platform
