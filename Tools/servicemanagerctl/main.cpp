// The operator's command. Exit status: 0 done, 1 failed, 2 not understood, and of the job commands
// 3 no such job, 4 not permitted, 5 no job host.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Logger/Logger.h"
#include "Platform/Linux/EmbeddedJobs.h"
#include "Platform/Linux/JobHostClient.h"
#include "Platform/Linux/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Thread.h"
#include "Tools/servicemanagerctl/JobsCommands.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/PlatformReport.h"

namespace {

constexpr int kNotUnderstood = 2;

void reportPlatform(const platform::LinuxPlatform& linuxPlatform, bool json) {
  const PlatformReport report = makePlatformReport(
      linuxPlatform.systemInformation, linuxPlatform.configuration, ::getpid(), ::getuid());
  print(json ? asJson(report).dump(2) + "\n" : asTable(report));
}

// One line through each logger, so that an administrator sees where the product's lines end.
// Returns how many were lost.
std::uint64_t writeTestLines(platform::SystemLog& systemLog, platform::SerialQueues& queues,
                             const std::string& message) {
  const LoggerBinding logger(systemLog);
  Logger2State logger2(systemLog, queues);
  const Logger2Binding logger2Binding(logger2);
  const std::uint32_t thread = platform::mach_thread_self();
  vantorlogger2_open("servicemanagerctl", thread);
  vantorlogger2_line(platform::ASL_LEVEL_INFO, message + " (logger 2)");
  get_queue(thread)->sync([] {});  // Until it is written or lost.
  vantorlogger2_close(thread);
  vantorlogger_open("servicemanagerctl", "com.vantor.hostagent.servicemanagerctl");
  vantorlogger_line(platform::ASL_LEVEL_INFO, message + " (logger 1)");
  vantorlogger_close();
  return systemLog.dropped();
}

int runLogTest(platform::LinuxPlatform& linuxPlatform, const std::string& message) {
  const std::uint64_t lost =
      writeTestLines(linuxPlatform.systemLog, linuxPlatform.utilityQueues, message);
  if (lost == 0) return EXIT_SUCCESS;
  return fail("the log took " + std::to_string(lost) +
              " of 2 lines not; see where it goes with \"servicemanagerctl platform\", and whether "
              "there is room and permission to write");
}

std::string hostProgram(const platform::Bundle& tool) {
  const std::string& path = tool.executablePath();
  return path.substr(0, path.rfind('/') + 1) + "jobhost";
}

int runJobsCommand(const JobsCommands& commands, platform::LinuxPlatform& linuxPlatform) {
  // Without patience: a person can ask again, and wants to know at once that no host runs.
  platform::JobHostClient client(linuxPlatform.peerTransport, *linuxPlatform.runLoop,
                                 platform::jobHostSocket(linuxPlatform.configuration.root),
                                 platform::Duration::zero());
  platform::EmbeddedJobs jobs(client);
  return commands.run(jobs, *linuxPlatform.runLoop, hostProgram(linuxPlatform.mainBundle));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Looks at the service manager and what it runs on.", "servicemanagerctl");
  app.require_subcommand(1);
  bool json = false;
  auto* platformCommand =
      app.add_subcommand("platform", "What the platform layer knows of this machine");
  platformCommand->add_flag("--json", json, "For programs");
  std::string message;
  auto* logTestCommand =
      app.add_subcommand("log-test", "Write one line through each of the product's loggers");
  logTestCommand->add_option("message", message, "The text of the lines")->required();
  const JobsCommands jobsCommands(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kNotUnderstood;
  }

  auto linuxPlatform = platform::LinuxPlatform::make();
  if (!linuxPlatform) {
    return fail(platform::describe(linuxPlatform.error()));
  }
  platform::LinuxPlatform& linux = **linuxPlatform;
  if (platformCommand->parsed()) reportPlatform(linux, json);
  if (jobsCommands.parsed()) return runJobsCommand(jobsCommands, linux);
  if (logTestCommand->parsed()) return runLogTest(linux, message);
  return EXIT_SUCCESS;
}
