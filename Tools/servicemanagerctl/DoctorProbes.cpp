#include "Tools/servicemanagerctl/DoctorProbes.h"

#include <functional>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Tools/servicemanagerctl/WithinTime.h"

using namespace platform;

namespace {

// The folder of the log. Where it goes to a receiver of the system, that writes below /var/log.
std::string folderOfLog(const PlatformConfiguration& configuration) {
  if (configuration.logSink != PlatformConfiguration::LogSink::kFile) return "/var/log";
  const std::string file = logFile(configuration.root);
  return file.substr(0, file.rfind('/'));
}

void probeServers(const DoctorEnvironment& environment, DoctorFacts& facts) {
  const PlatformConfiguration& configuration = environment.configuration;
  if (configuration.jobBackend == PlatformConfiguration::JobBackend::kSystemd)
    facts.systemd = probeSystemd();
  facts.bus = probeBus(configuration);
  // Looking up the users and the group of the places may wait for a name service.
  const auto places = withinTime<ListenerPlaces>(
      kDiskProbeTime, [configuration] { return ListenerPlaces(configuration); });
  if (!places) {
    facts.host =
        facts.daemon = {ServerFact::State::kFailed, "the lookup of users and groups hangs", {}};
    return;
  }
  facts.host = probeHost(environment, *places);
  facts.daemon = probeDaemon(environment, *places);
}

std::optional<ProcessId> processOf(const ServerFact& server) {
  if (!server.program) return std::nullopt;
  return server.program->process;
}

}  // namespace

DoctorFacts probe(const DoctorEnvironment& environment) {
  const PlatformConfiguration configuration = environment.configuration;
  const std::string root = configuration.root;
  const WallTime now = environment.now;
  DoctorFacts facts{.configuration = configuration, .user = ::geteuid()};
  probeServers(environment, facts);
  const auto host = processOf(facts.host);
  facts.installed = ofDisk<std::vector<InstalledFile>>(
      [root, program = environment.hostProgram] { return probeInstallation(root, program); });
  if (configuration.group)
    facts.group = ofDisk<GroupFact>([name = *configuration.group] { return probeGroup(name); });
  facts.sockets =
      ofDisk<std::vector<SocketFile>>([configuration] { return probeSockets(configuration); });
  facts.limits = ofDisk<LimitsFact>([host] { return probeLimits(host); });
  facts.kernel = ofDisk<KernelFact>([root, host] { return probeKernel(root, host); });
  facts.anchors = ofDisk<AnchorsFact>([root, now] { return probeAnchors(root, now); });
  facts.clock = ofDisk<ClockFact>([root, now] { return probeClock(root, now); });
  const std::pair<std::string, std::string> disks[] = {
      {"log", folderOfLog(configuration)},
      {"settings", pathBelowRoot(root, "var/lib/vantor")},
      {"state", pathBelowRoot(root, "run/vantor")}};
  for (const auto& [use, path] : disks)
    facts.disks.emplace_back(
        use, ofDisk<DiskFact>([use = use, path = path] { return probeDisk(use, path); }));
  return facts;
}
