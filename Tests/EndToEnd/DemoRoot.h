#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/JobHostRoot.h"

namespace platform {

// A platform root with the demo product, made by its make-root, and a job host that runs there and
// has started the daemon.
class DemoRoot {
 public:
  static constexpr char kDaemon[] = "com.vantor.servicemanager";

  // Returns when the product's services run.
  DemoRoot();
  DemoRoot(const DemoRoot&) = delete;
  DemoRoot& operator=(const DemoRoot&) = delete;
  // Ends the host and all jobs.
  ~DemoRoot();

  std::string path() const { return folder_.path("root"); }
  std::string controlProgram() const { return path() + "/usr/bin/servicemanagerctl"; }

  // Runs the operator's command to its end.
  JobHostRoot::Finished control(std::vector<std::string> arguments) const;
  // The process of a job, 0 if it has none.
  ProcessId processOf(const std::string& label) const;

 private:
  // Waits until each of the texts has been in a line of the log.
  void awaitLog(std::set<std::string> texts);

  TemporaryFolder folder_;
  NotifySocket readiness_{folder_.path("notify")};
  std::unique_ptr<ChildProgram> host_;
  std::unique_ptr<ChildProgram> log_;  // follows the log
};

}  // namespace platform
