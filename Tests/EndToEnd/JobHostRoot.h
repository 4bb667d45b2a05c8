#pragma once

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"

namespace platform {

// A platform root of its own with the programs of the job host and the operator, and a running job
// host.
class JobHostRoot {
 public:
  struct Finished {
    ExitStatus status;
    std::string output;
    std::string errors;
  };

  // Starts the host. `configuration` is more of its platform.plist, as XML.
  explicit JobHostRoot(const std::string& configuration = {});
  JobHostRoot(const JobHostRoot&) = delete;
  JobHostRoot& operator=(const JobHostRoot&) = delete;
  // Ends the host and all jobs.
  ~JobHostRoot();

  const TemporaryFolder& folder() const { return folder_; }
  std::string hostProgram() const { return folder_.path("jobhost"); }
  std::string controlProgram() const { return folder_.path("servicemanagerctl"); }
  // Runs until SIGTERM. The stubborn one ignores SIGTERM.
  std::string program() const { return folder_.path("agent"); }
  std::string stubbornProgram() const { return folder_.path("stubborn"); }
  // A file that is neither a program nor a script.
  std::string unstartableProgram() const { return folder_.path("text"); }

  // A path for jobs' output. nextOutput() waits for the next line there.
  std::string outputPath() const { return folder_.path("output"); }
  std::string nextOutput();

  // Returns when the host takes requests.
  void startHost();
  // Kills the host. The jobs go on.
  void killHost();
  ProcessId hostProcess() const { return host_->process(); }
  // SIGSTOP and SIGCONT.
  void stopHost() const { host_->signal(SIGSTOP); }
  void continueHost() const { host_->signal(SIGCONT); }

  // Runs the operator's command to its end.
  Finished control(std::vector<std::string> arguments) const;

 private:
  TemporaryFolder folder_;
  NotifySocket readiness_{folder_.path("notify")};
  UniqueFd output_;
  std::unique_ptr<ChildProgram> host_;
};

// Ends a process by SIGKILL, and returns when it has ended.
void killAndAwait(ProcessId process);

// Whether the process exists and has not ended.
bool isRunning(ProcessId process);

}  // namespace platform
