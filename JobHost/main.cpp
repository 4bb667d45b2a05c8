// The job host: runs until it is asked to end, and then ends its jobs. Killed, it leaves them to
// the host that is started next. It has no options.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <unistd.h>

#include "JobHost/JobHost.h"
#include "JobHost/JobServer.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/RuntimeFolders.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"

namespace {

// Keeps a request to end from being acted on while the host is created, and tells whether there is
// one: the loop, which would hear it, does not run then. To be made before there are other threads,
// which would hear it in the place of this one.
class HeldTermination {
 public:
  HeldTermination() {
    ::sigemptyset(&signals_);
    ::sigaddset(&signals_, SIGTERM);
    ::sigaddset(&signals_, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  }
  HeldTermination(const HeldTermination&) = delete;
  HeldTermination& operator=(const HeldTermination&) = delete;
  // Also where they were blocked by whoever started this: nothing else would end it.
  ~HeldTermination() { ::pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr); }

  static bool isPending() {
    sigset_t pending;
    return ::sigpending(&pending) == 0 &&
           (::sigismember(&pending, SIGTERM) == 1 || ::sigismember(&pending, SIGINT) == 1);
  }

 private:
  sigset_t signals_{};
};

int fail(const platform::Error& error) {
  std::fputs(("jobhost: " + platform::describe(error) + "\n").c_str(), stderr);
  return EXIT_FAILURE;
}

}  // namespace

int main() {
  std::optional<HeldTermination> held(std::in_place);
  auto made = platform::LinuxPlatform::make();
  if (!made) return fail(made.error());
  platform::LinuxPlatform& linux = **made;
  // Nobody reads what a service says to its standard error.
  const auto fail = [&linux](const platform::Error& error) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR,
                            "the job host does not start: " + platform::describe(error));
    return ::fail(error);
  };
  // Every other program of the root registers its connections there.
  if (const auto folder = platform::makeConnectionsFolder(linux.configuration); !folder) {
    return fail(folder.error());
  }
  auto bootId = jobhost::readBootId();
  if (!bootId) return fail(bootId.error());
  auto processes = jobhost::LinuxProcesses::create(*linux.runLoop, linux.originalDescriptorLimit);
  if (!processes) return fail(processes.error());
  std::unique_ptr<jobhost::JobHost> host;
  bool isStopping = false;
  // Before the first job is started: whoever ends a host that is still starting its daemons wants
  // those that it has started ended too. The request is heard when the loop runs, and then there is
  // a host.
  const auto termination = linux.terminationSignals.watchTermination([&] {
    if (std::exchange(isStopping, true)) return;
    static_cast<void>(linux.readiness.announceStopping());
    host->shutDown([&] { linux.runLoop->stop(); });
  });
  if (!termination) return fail(termination.error());
  jobhost::JobHostOptions options;
  options.root = linux.configuration.root;
  options.bootId = *std::move(bootId);
  options.isAskedToEnd = &HeldTermination::isPending;
  auto created =
      jobhost::JobHost::create(*linux.runLoop, **processes, linux.systemLog, std::move(options));
  if (!created) return fail(created.error());
  host = *std::move(created);
  held.reset();

  const auto server = jobhost::JobServer::listen(*linux.runLoop, linux.peerTransport,
                                                 platform::jobHostSocket(linux.configuration.root),
                                                 ::geteuid(), *host, linux.systemLog);
  if (!server) return fail(server.error());

  if (const auto announced = linux.readiness.announceReady(); !announced) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_WARNING,
                            platform::describe(announced.error()));
  }
  linux.runLoop->run();
  return EXIT_SUCCESS;
}
