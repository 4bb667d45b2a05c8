// The operator's command. ExitStatus.h lists its exit statuses.

#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2State.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Logger/Logger.h"
#include "Platform/Linux/CodeSigning/LinuxCodeSignatures.h"
#include "Platform/Linux/Jobs/EmbeddedJobs.h"
#include "Platform/Linux/Jobs/JobHostClient.h"
#include "Platform/Linux/Jobs/JobHostMessages.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/Processes/ControlGroup.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemFacts/ProgramArguments.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/SystemFacts/Thread.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/DoctorCommand.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/JobsCommands.h"
#include "Tools/servicemanagerctl/LintCommand.h"
#include "Tools/servicemanagerctl/ListCommand.h"
#include "Tools/servicemanagerctl/LogCommand.h"
#include "Tools/servicemanagerctl/MetricsCommand.h"
#include "Tools/servicemanagerctl/NewCommand.h"
#include "Tools/servicemanagerctl/OperatorCommands.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/PlanCommand.h"
#include "Tools/servicemanagerctl/PlatformReport.h"
#include "Tools/servicemanagerctl/PlistCommands.h"
#include "Tools/servicemanagerctl/RunCommand.h"
#include "Tools/servicemanagerctl/ServiceCommands.h"
#include "Tools/servicemanagerctl/SettingsCommands.h"
#include "Tools/servicemanagerctl/ShowCommand.h"
#include "Tools/servicemanagerctl/SupportCommand.h"
#include "Tools/servicemanagerctl/TopCommand.h"
#include "Tools/servicemanagerctl/ValueJson.h"
#include "Tools/servicemanagerctl/WatchCommand.h"
#include "Tools/servicemanagerctl/XPCCommands.h"

namespace {

PlatformReport platformReport(const platform::LinuxPlatform& linuxPlatform) {
  PlatformReport report = makePlatformReport(linuxPlatform.systemInformation,
                                             linuxPlatform.configuration, ::getpid(), ::getuid());
  const auto hierarchy = platform::ControlGroupHierarchy::find();
  report.controlGroups = hierarchy ? std::expected<std::string, std::string>(hierarchy->mountPoint)
                                   : std::unexpected(describe(hierarchy.error()));
  return report;
}

void reportPlatform(const platform::LinuxPlatform& linuxPlatform, bool json) {
  const PlatformReport report = platformReport(linuxPlatform);
  print(json ? dumpedAnswer(asJson(report)) : asTable(report));
}

// The time that the log has for the lines of log-test.
constexpr platform::Duration kLogTestTime = std::chrono::seconds(10);

// Writes one line through each logger, so that an administrator sees where the product's lines end.
// Returns how many were not written within kLogTestTime.
std::uint64_t writeTestLines(platform::LinuxPlatform& linuxPlatform, const std::string& message) {
  platform::SystemLog& systemLog = linuxPlatform.systemLog;
  const LoggerBinding logger(systemLog);
  Logger2State logger2(systemLog, linuxPlatform.utilityQueues);
  const Logger2Binding logger2Binding(logger2);
  const std::uint32_t thread = platform::mach_thread_self();
  vantorlogger2_open("servicemanagerctl", thread);
  vantorlogger2_line(platform::ASL_LEVEL_INFO, message + " (logger 2)");
  get_queue(thread)->sync([] {});  // Waits until the sink has the line.
  vantorlogger2_close(thread);
  vantorlogger_open("servicemanagerctl", "com.vantor.hostagent.servicemanagerctl");
  vantorlogger_line(platform::ASL_LEVEL_INFO, message + " (logger 1)");
  vantorlogger_close();
  return systemLog.dropped() + linuxPlatform.logSink.flush(kLogTestTime) +
         linuxPlatform.logSink.lost();
}

bool mayNotWrite(const std::string& path) {
  return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0 && errno == EACCES;
}

int runLogTest(platform::LinuxPlatform& linuxPlatform, const std::string& message, bool json) {
  const std::uint64_t lost = writeTestLines(linuxPlatform, message);
  if (json) print(dumpedAnswer({{"lines", 2}, {"lost", lost}}));
  if (lost == 0) return EXIT_SUCCESS;
  const platform::PlatformConfiguration& configuration = linuxPlatform.configuration;
  if (configuration.logSink == platform::PlatformConfiguration::LogSink::kFile) {
    const std::string path = platform::logFile(configuration.root);
    if (mayNotWrite(path)) {
      fail(path + ": this user may not write it");
      return kExitNotPermitted;
    }
  }
  return fail("the log took " + std::to_string(lost) +
              " of 2 lines not; see where it goes with \"servicemanagerctl platform\", and whether "
              "there is room and permission to write");
}

// The path of the job host's program: beside this one, or in another root.
std::string hostProgram(const platform::LinuxPlatform& linuxPlatform, bool isOtherRoot) {
  const std::string& path = linuxPlatform.mainBundle.executablePath();
  if (!isOtherRoot) return path.substr(0, path.rfind('/') + 1) + "jobhost";
  return platform::pathBelowRoot(linuxPlatform.configuration.root, "usr/bin/jobhost");
}

// No wait for a host: a person can ask again, and wants to know at once that no host runs.
platform::JobHostClient jobHostClient(platform::LinuxPlatform& linuxPlatform) {
  return {linuxPlatform.peerTransport, *linuxPlatform.runLoop,
          platform::jobHostSocket(linuxPlatform.configuration.root), platform::Duration::zero(),
          platform::ListenerPlaces(linuxPlatform.configuration).servers()};
}

int runJobsCommand(const JobsCommands& commands, platform::LinuxPlatform& linuxPlatform,
                   const std::string& hostProgram) {
  platform::JobHostClient client = jobHostClient(linuxPlatform);
  platform::EmbeddedJobs jobs(client);
  return commands.run(jobs, *linuxPlatform.runLoop, hostProgram);
}

// `commands` speak to the service manager or another server of the product.
template <typename Commands>
int runServiceCommand(const Commands& commands, platform::LinuxPlatform& linuxPlatform) {
  const LoggerBinding logger(linuxPlatform.systemLog);
  const std::string& root = linuxPlatform.configuration.root;
  const platform::ListenerPlaces places(linuxPlatform.configuration);
  const auto place = [&](std::string_view name) { return places.connection(name); };
  platform::NotificationCenter center;
  platform::NamedConnections connections(*linuxPlatform.runLoop, linuxPlatform.peerTransport,
                                         center, linuxPlatform.systemLog, place);
  const auto distributedCenter = platform::makeBusNotificationCenter(
      *linuxPlatform.runLoop, platform::notificationBusAddress(linuxPlatform.configuration),
      linuxPlatform.systemLog);
  platform::ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  addGlobalSettingsProtocol(protocols);
  return commands.run({.objects = {*linuxPlatform.runLoop, connections, *distributedCenter, center,
                                   protocols, linuxPlatform.systemInformation},
                       .transport = linuxPlatform.peerTransport,
                       .place = place,
                       .root = root,
                       .group = linuxPlatform.configuration.group,
                       .isRoot = ::geteuid() == 0,
                       .configuration = &linuxPlatform.configuration});
}

DoctorEnvironment doctorEnvironment(platform::LinuxPlatform& linux, std::string hostProgram) {
  return {linux.peerTransport, linux.configuration, linux.runLoop->wallTime(),
          std::move(hostProgram)};
}

// The support bundle asks everybody.
struct SupportQuestions {
  const SupportCommand& command;
  platform::LinuxPlatform& linuxPlatform;
  std::string hostProgram;

  int run(const DaemonClient::Environment& environment) const {
    platform::JobHostClient client = jobHostClient(linuxPlatform);
    platform::EmbeddedJobs jobs(client);
    return command.run({.daemon = environment,
                        .doctor = doctorEnvironment(linuxPlatform, hostProgram),
                        .jobs = jobs,
                        .platform = asJson(platformReport(linuxPlatform))});
  }
};

int runXPCCommand(const XPCCommands& commands, platform::LinuxPlatform& linuxPlatform) {
  const platform::ListenerPlaces places(linuxPlatform.configuration);
  const auto xpc = platform::LinuxXPC::make(linuxPlatform.systemLog, places, std::nullopt);
  if (!xpc) return fail(xpc.error());
  platform::ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  // 100 ms are enough to tell a daemon that hangs (the connect times out) from no daemon at all
  // (the connect is refused).
  constexpr platform::Duration kProbeTimeOut = std::chrono::milliseconds(100);
  const auto whyNotConnected = [&]() -> std::optional<platform::PeerConnectFailure> {
    const platform::ListenerPlace place = places.machService(kEndpointRegistryService);
    const auto tried = linuxPlatform.peerTransport.connect(
        place.path, {.timeout = kProbeTimeOut, .servers = place.servers});
    if (tried) return std::nullopt;
    return tried.error();
  };
  const std::string& root = places.root();
  const auto signatures = platform::LinuxCodeSignatures::create(
      root, [&] { return linuxPlatform.runLoop->wallTime(); });
  if (!signatures) return fail(signatures.error());
  const auto faultOfPlace = [&](const std::string& file) {
    const auto trusted = (*signatures)->checkPlace(file);
    if (trusted) return std::string();
    // The rest says what an administrator could do so that the file may run.
    const std::string& reason = trusted.error().reason;
    return reason.substr(0, reason.find(", so that"));
  };
  const auto protectionOf = [&](const std::string& file) {
    return (*signatures)->protectionOf(file);
  };
  const auto check = [&](const std::string& file) -> platform::CodeSigningResult<void> {
    const auto code = (*signatures)->SecStaticCodeCreateWithPath(file);
    if (!code) return std::unexpected(code.error());
    const auto anchored = platform::SecRequirementCreateWithString("anchor apple generic");
    if (!anchored) return std::unexpected(anchored.error());
    return (*code)->SecStaticCodeCheckValidityWithErrors(platform::kSecCSDefaultFlags, *anchored);
  };
  return commands.run({.xpc = (*xpc)->xpc(),
                       .system = linuxPlatform.systemInformation,
                       .protocols = protocols,
                       .root = root,
                       .whyNotConnected = whyNotConnected,
                       .group = linuxPlatform.configuration.group,
                       .isRoot = ::geteuid() == 0,
                       .faultOfPlace = faultOfPlace,
                       .protectionOf = protectionOf,
                       .check = check});
}

// main() adds the failures of the output.
int run(int argc, char** argv) {
  CLI::App app("Looks at the service manager and what it runs on.", "servicemanagerctl");
  app.require_subcommand(1);
  app.set_version_flag("--version", "servicemanagerctl " + std::string(platform::productVersion()));
  bool json = false;
  auto* platformCommand =
      app.add_subcommand("platform", "What the platform layer knows of this machine");
  platformCommand->add_flag("--json", json, "For programs");
  std::string message;
  auto* logTestCommand =
      app.add_subcommand("log-test", "Write one line through each of the product's loggers");
  logTestCommand->add_option("message", message, "The text of the lines")->required();
  logTestCommand->add_flag("--json", json, "For programs");
  const ListCommand listCommand(app);
  const ShowCommand showCommand(app);
  const ServiceCommands serviceCommands(app);
  const WatchCommand watchCommand(app);
  const TopCommand topCommand(app);
  const SettingsCommands settingsCommands(app);
  const OperatorCommands operatorCommands(app);
  const DoctorCommand doctorCommand(app);
  const MetricsCommand metricsCommand(app);
  const SupportCommand supportCommand(app);
  const LogCommand logCommand(app);
  const JobsCommands jobsCommands(app);
  const XPCCommands xpcCommands(app);
  const LintCommand lintCommand(app);
  const PlanCommand planCommand(app);
  const PlistCommands plistCommands(app);
  const NewCommand newCommand(app);
  const RunCommand runCommand(app);
  std::string root;
  addRootOption(app, root);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    std::ostringstream text;
    app.exit(help, text, text);
    print(text.str());
    return EXIT_SUCCESS;
  } catch (const CLI::ParseError& error) {
    fail(parseErrorText(app, error, {argv + 1, argv + argc}));
    warn("Run with --help for more information.\n");
    return kExitNotUnderstood;
  }
  if (const auto checked = checkArguments(app); !checked) {
    fail(checked.error().text);
    return checked.error().exitStatus;
  }
  setRootOfHints(root);
  if (lintCommand.parsed()) return lintCommand.run(root);
  if (plistCommands.parsed()) return plistCommands.run();
  if (newCommand.parsed()) return newCommand.run();
  if (runCommand.parsed()) return runCommand.run(root);
  if (planCommand.parsed() && !planCommand.asksDaemon()) return planCommand.run(root);

  auto linuxPlatform =
      root.empty() ? platform::LinuxPlatform::make() : platform::LinuxPlatform::makeAt(root);
  if (!linuxPlatform && doctorCommand.parsed())
    return doctorCommand.runWithout(linuxPlatform.error());
  if (!linuxPlatform && supportCommand.parsed()) {
    const auto loop = platform::AsioRunLoop::create();
    return supportCommand.runWithout(linuxPlatform.error(),
                                     loop ? (*loop)->wallTime() : platform::WallTime());
  }
  if (!linuxPlatform) return fail(linuxPlatform.error());
  platform::LinuxPlatform& linux = **linuxPlatform;
  if (platformCommand->parsed()) reportPlatform(linux, json);
  if (listCommand.parsed()) return runServiceCommand(listCommand, linux);
  if (showCommand.parsed()) return runServiceCommand(showCommand, linux);
  if (serviceCommands.parsed()) return runServiceCommand(serviceCommands, linux);
  if (operatorCommands.parsed()) return runServiceCommand(operatorCommands, linux);
  if (watchCommand.parsed()) return runServiceCommand(watchCommand, linux);
  if (settingsCommands.parsed()) return runServiceCommand(settingsCommands, linux);
  if (planCommand.parsed()) return runServiceCommand(planCommand, linux);
  if (xpcCommands.parsed()) return runXPCCommand(xpcCommands, linux);
  if (metricsCommand.parsed()) return runServiceCommand(metricsCommand, linux);
  if (metricsCommand.isScraped()) return metricsCommand.answerScraper(*linux.runLoop);
  if (doctorCommand.parsed())
    return doctorCommand.run(doctorEnvironment(linux, hostProgram(linux, !root.empty())));
  if (supportCommand.parsed())
    return runServiceCommand(
        SupportQuestions{supportCommand, linux, hostProgram(linux, !root.empty())}, linux);
  if (topCommand.parsed()) return topCommand.run(*linux.runLoop, root);
  if (logCommand.parsed() && !logCommand.isWholeFile()) return runServiceCommand(logCommand, linux);
  if (logCommand.parsed()) return logCommand.run(linux.configuration, *linux.runLoop);
  if (jobsCommands.parsed())
    return runJobsCommand(jobsCommands, linux, hostProgram(linux, !root.empty()));
  if (logTestCommand->parsed()) return runLogTest(linux, message, json);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");  // Texts are shown in the terminal's characters.
  prepareStandardFiles();
  letReaderLeave();  // The reader may be head, or a pager.
  return concludingStatus(run(argc, argv));
}
