#include "Tools/servicemanagerctl/DoctorProbes.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Logging/LogSinkChoice.h"
#include "Platform/RunLoops/MonotonicTime.h"
#include "Tools/servicemanagerctl/WithinTime.h"

using namespace platform;

namespace {

// The folder of the log. Where it goes to a receiver of the system, that writes below /var/log.
std::string folderOfLog(const PlatformConfiguration& configuration) {
  if (configuration.logSink != PlatformConfiguration::LogSink::kFile) return "/var/log";
  const std::string file = logFile(configuration.root);
  return file.substr(0, file.rfind('/'));
}

std::optional<ProcessId> processOf(const ServerFact& server) {
  if (!server.program) return std::nullopt;
  return server.program->process;
}

// The probes that are under way.
class Probes {
 public:
  template <typename T>
  PendingFact<T> begin(std::function<Fact<T>()> work) const {
    return {deadline(), std::move(work)};
  }

  Instant deadline() const {
    const Instant now = monotonicTime();
    return std::max(now + kLateProbeTime, std::min(now + kDiskProbeTime, end_));
  }

 private:
  const Instant end_ = monotonicTime() + kDoctorTime;
};

using PendingServer = PendingResult<ServerFact>;

ServerFact factBy(Instant deadline, PendingServer& server) {
  if (!server.hasBegun()) return {ServerFact::State::kFailed, kNoThread, {}};
  return server.by(deadline).value_or(ServerFact{ServerFact::State::kHangs, {}, {}});
}

// The job host and the service manager. `pending` may wait for a name service.
void probePeers(const DoctorEnvironment& environment, PendingResult<ListenerPlaces>& pending,
                Instant deadline, DoctorFacts& facts) {
  if (const auto places = pending.by(deadline)) {
    facts.host = probeHost(environment, *places);
    facts.daemon = probeDaemon(environment, *places);
    return;
  }
  const char* const why = pending.hasBegun() ? "the lookup of users and groups hangs" : kNoThread;
  facts.host = facts.daemon = {ServerFact::State::kFailed, why, {}};
}

std::optional<PendingFact<bool>> beginToCompare(const Probes& probes, const ServerFact& server) {
  if (!server.program) return std::nullopt;
  return probes.begin<bool>([process = server.program->process, path = server.program->installed] {
    return executesFile(process, path);
  });
}

}  // namespace

DoctorFacts probe(const DoctorEnvironment& environment) {
  const PlatformConfiguration configuration = environment.configuration;
  const std::string root = configuration.root;
  const WallTime now = environment.now;
  const Probes probes;
  // Looking up the users and the group of the places may wait for a name service.
  PendingResult<ListenerPlaces> places([configuration] { return ListenerPlaces(configuration); });
  PendingServer bus([configuration] { return probeBus(configuration); });
  std::optional<PendingServer> systemd;
  if (configuration.jobBackend == PlatformConfiguration::JobBackend::kSystemd)
    systemd.emplace(probeSystemd);
  auto installed = probes.begin<std::vector<InstalledFile>>(
      [root, program = environment.hostProgram] { return probeInstallation(root, program); });
  std::optional<PendingFact<GroupFact>> group;
  if (configuration.group)
    group = probes.begin<GroupFact>([name = *configuration.group] { return probeGroup(name); });
  auto sockets = probes.begin<std::vector<SocketFile>>(
      [configuration] { return probeSockets(configuration); });
  auto anchors = probes.begin<AnchorsFact>([root, now] { return probeAnchors(root, now); });
  auto clock = probes.begin<ClockFact>([root, now] { return probeClock(root, now); });
  std::vector<std::pair<std::string, PendingFact<DiskFact>>> disks;
  const std::pair<std::string, std::string> kDisks[] = {
      {"log", folderOfLog(configuration)},
      {"settings", pathBelowRoot(root, "var/lib/vantor")},
      {"state", pathBelowRoot(root, "run/vantor")}};
  for (const auto& [use, path] : kDisks)
    disks.emplace_back(
        use, probes.begin<DiskFact>([use = use, path = path] { return probeDisk(use, path); }));

  DoctorFacts facts{.configuration = configuration, .user = ::geteuid()};
  const Instant deadline = probes.deadline();
  probePeers(environment, places, deadline, facts);
  const auto host = processOf(facts.host);
  auto limits = probes.begin<LimitsFact>([host] { return probeLimits(host); });
  auto kernel = probes.begin<KernelFact>([root, host] { return probeKernel(root, host); });
  auto hostProgram = beginToCompare(probes, facts.host);
  auto daemonProgram = beginToCompare(probes, facts.daemon);
  facts.bus = factBy(deadline, bus);
  if (systemd) facts.systemd = factBy(deadline, *systemd);
  facts.installed = installed.get();
  if (group) facts.group = group->get();
  facts.sockets = sockets.get();
  facts.anchors = anchors.get();
  facts.clock = clock.get();
  for (auto& [use, disk] : disks) facts.disks.emplace_back(use, disk.get());
  facts.limits = limits.get();
  facts.kernel = kernel.get();
  if (hostProgram) facts.host.program->isInstalledFile = hostProgram->get();
  if (daemonProgram) facts.daemon.program->isInstalledFile = daemonProgram->get();
  return facts;
}
