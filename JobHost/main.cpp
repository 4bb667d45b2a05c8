// The job host: runs until SIGTERM or SIGINT, and then ends its jobs. If it is killed, the next
// host takes them over. At SIGHUP the installed program replaces it and takes them over. It has no
// options.

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "JobHost/JobHost.h"
#include "JobHost/JobServer.h"
#include "JobHost/Output/ServiceOutput.h"
#include "JobHost/Processes/JobGroups.h"
#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/Replacement.h"
#include "JobHost/RuntimeFolders.h"
#include "JobHost/Systemd/SystemdProcesses.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/BusClients.h"
#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/ProgramArguments.h"
#include "Platform/Linux/Systemd/SystemdManager.h"

namespace {

// How long the log may delay the host that replaces this one.
constexpr platform::Duration kLogTime = std::chrono::milliseconds(500);

constexpr std::string_view kHelp =
    R"(Usage: jobhost [--help | --version]

Starts the jobs in the LaunchDaemons folder of its platform root, keeps them and those that the
service manager submits, and serves "servicemanagerctl jobs".

SIGTERM and SIGINT end it and all jobs. SIGHUP replaces it by the program that is installed now; the
jobs go on, as they do when it is killed. See jobhost(8).
)";

// Blocks SIGTERM and SIGINT while the host is created or replaced, when the loop, which handles
// them, does not run. Tells whether one is pending. Must be made before there are other threads,
// which would receive the signals instead.
class TerminationBlocked {
 public:
  TerminationBlocked() {
    ::sigemptyset(&signals_);
    ::sigaddset(&signals_, SIGTERM);
    ::sigaddset(&signals_, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
  }
  TerminationBlocked(const TerminationBlocked&) = delete;
  TerminationBlocked& operator=(const TerminationBlocked&) = delete;
  // Unblocks them even if they were blocked at the program's start: nothing else would stop the
  // host.
  ~TerminationBlocked() { ::pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr); }

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

// The control groups of jobs, if the host makes them itself.
std::optional<jobhost::JobGroups> makeGroups(std::uint64_t mark, platform::SystemLog& log) {
  auto groups = jobhost::JobGroups::create(mark);
  if (!groups) {
    log.asl_log(nullptr, platform::ASL_LEVEL_NOTICE,
                "jobs have no control groups, so a process that leaves its job's "
                "process group is found by its environment only: " +
                    platform::describe(groups.error()));
    return std::nullopt;
  }
  if (!groups->haveWeights()) {
    log.asl_log(nullptr, platform::ASL_LEVEL_INFO,
                "the control groups of jobs have no weights, so \"ProcessType\" sets "
                "niceness and I/O priority only");
  }
  return *std::move(groups);
}

// The program that systemd executes for each job lies beside this one.
std::string pathOfStarter() {
  const auto own = platform::runningExecutablePath();
  return own ? own->substr(0, own->rfind('/') + 1) + "jobstart" : "/usr/bin/jobstart";
}

// Tells the operator once why fewer jobs than kMaximumJobs can run.
void reportDescriptorLimit(platform::SystemLog& log) {
  const std::uint64_t limit = platform::softDescriptorLimit();
  if (limit >= jobhost::kMaximumJobs + platform::kDescriptorReserve) return;
  log.asl_log(nullptr, platform::ASL_LEVEL_NOTICE,
              fmt::format("this process may open {} files, and each running job takes one, and one "
                          "more for each of its services: fewer than {} jobs can run",
                          limit, jobhost::kMaximumJobs));
}

}  // namespace

int main(int argc, char** argv) {
  if (const auto status = platform::answerArguments(argc, argv, kHelp)) return *status;
  std::optional<TerminationBlocked> blocked(std::in_place);
  const jobhost::ReplacementRequests replacementRequests;
  auto made = platform::LinuxPlatform::make();
  if (!made) {
    platform::logFailedStart(made.error());
    return fail(made.error());
  }
  platform::LinuxPlatform& linux = **made;
  // Nobody reads the standard error of a service.
  const auto fail = [&linux](const platform::Error& error) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR,
                            "the job host does not start: " + platform::describe(error));
    return ::fail(error);
  };
  for (const std::string& warning : linux.configuration.warnings) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_WARNING, warning);
  }
  reportDescriptorLimit(linux.systemLog);
  // All other programs of the root register their connections in this folder.
  if (const auto folder = platform::makeConnectionsFolder(linux.configuration); !folder) {
    return fail(folder.error());
  }
  // The jobs matter more than the bus, which admits only root without this file.
  const auto clients = platform::writeBusClients(linux.configuration);
  if (!clients) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR,
                            "the bus admits only root: " + platform::describe(clients.error()));
  }
  const platform::ListenerPlaces places(linux.configuration);
  if (const auto folder = platform::shareEndpointFolder(places.root(), places.endpointClients());
      !folder) {
    return fail(folder.error());
  }
  auto bootId = jobhost::readBootId();
  if (!bootId) return fail(bootId.error());
  const std::uint64_t mark = jobhost::hostMark(linux.configuration.root, *bootId);
  const bool usesSystemd =
      linux.configuration.jobBackend == platform::PlatformConfiguration::JobBackend::kSystemd;
  const auto runtime = jobhost::makeRuntimeFolders(linux.configuration.root);
  if (!runtime) return fail(runtime.error());
  const auto output =
      jobhost::ServiceOutput::create(linux.configuration, runtime->output, linux.systemLog);
  if (!output) return fail(output.error());
  auto own = jobhost::LinuxProcesses::create(
      *linux.runLoop, linux.originalDescriptorLimit, mark,
      usesSystemd ? std::nullopt : makeGroups(mark, linux.systemLog), (*output)->output());
  if (!own) return fail(own.error());
  platform::SystemdManager manager;
  const bool printsToJournal =
      linux.configuration.serviceOutput == platform::PlatformConfiguration::ServiceOutput::kJournal;
  jobhost::SystemdProcesses units(
      **own, manager,
      {linux.configuration.root, mark, pathOfStarter(),
       printsToJournal ? jobhost::JobOutput() : (*output)->output(), printsToJournal});
  jobhost::Processes& processes = usesSystemd ? static_cast<jobhost::Processes&>(units) : **own;
  std::unique_ptr<jobhost::JobHost> host;
  bool isStopping = false;
  // Watch before the first job is started: a stop request during the start also ends the daemons
  // that were started. The handler runs when the loop does, and then there is a host.
  const auto termination = linux.terminationSignals.watchTermination([&] {
    if (std::exchange(isStopping, true)) return;
    static_cast<void>(linux.readiness.announceStopping());
    host->shutDown([&] { linux.runLoop->stop(); });
  });
  if (!termination) return fail(termination.error());
  jobhost::JobHostOptions options;
  options.root = linux.configuration.root;
  options.bootId = *std::move(bootId);
  options.audienceOfService = [&places](std::string_view service) {
    return places.machService(service).clients;
  };
  options.isBusOutdated = clients.value_or(true);
  options.onBusRestarted = [&linux] { platform::forgetOutdatedBus(linux.configuration.root); };
  options.isStopRequested = &TerminationBlocked::isPending;
  auto created =
      jobhost::JobHost::create(*linux.runLoop, processes, linux.systemLog, std::move(options));
  if (!created) return fail(created.error());
  host = *std::move(created);
  (*output)->takeOver(*linux.runLoop);
  blocked.reset();

  const auto server = jobhost::JobServer::listen(*linux.runLoop, linux.peerTransport,
                                                 platform::jobHostSocket(linux.configuration.root),
                                                 ::geteuid(), *host, linux.systemLog);
  if (!server) return fail(server.error());

  if (const auto announced = linux.readiness.announceReady(); !announced) {
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_WARNING,
                            platform::describe(announced.error()));
  }
  const auto replace = [&] {
    if (isStopping) return blocked.reset();
    static_cast<void>(linux.readiness.announceReloading());
    (*output)->stop(kLogTime);
    linux.logSink.flush(kLogTime);
    linux.readiness.returnToEnvironment();
    const platform::Error error = jobhost::replaceProgram(linux.originalDescriptorLimit);
    (*output)->start();
    linux.readiness = platform::ServiceNotify::takeFromEnvironment();
    linux.systemLog.asl_log(nullptr, platform::ASL_LEVEL_ERR,
                            "the job host goes on as it is: " + platform::describe(error));
    static_cast<void>(linux.readiness.announceReady());
    blocked.reset();
  };
  // A request to end that this program has noted already comes before the next turn. One that comes
  // later stays pending for the program that replaces this one.
  const auto replacement = replacementRequests.watch(*linux.runLoop, [&] {
    blocked.emplace();
    linux.runLoop->post(replace);
  });
  if (!replacement) return fail(replacement.error());
  const auto announceAlive = [&] {
    static_cast<void>(
        linux.readiness.announceAlive(fmt::format("keeps {} jobs", host->labels().size())));
  };
  std::unique_ptr<platform::RunLoopHandle> watchdog;
  if (const auto time = linux.readiness.watchdogTime(); time.count() > 0) {
    announceAlive();
    watchdog =
        linux.runLoop->startTimer(time / 2, platform::RunLoop::Repeat::kEvery, announceAlive);
  }
  linux.runLoop->run();
  return EXIT_SUCCESS;
}
