#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Time.h"
#include "Tools/servicemanagerctl/DoctorFacts.h"
#include "Tools/servicemanagerctl/WithinTime.h"

// The probes of "servicemanagerctl doctor". Each is bounded, whatever hangs, and changes nothing.

// A server has this long to accept a connection, and a disk to answer.
inline constexpr platform::Duration kServerProbeTime = std::chrono::seconds(2);
inline constexpr platform::Duration kDiskProbeTime = std::chrono::seconds(5);

// All probes together have this long, and one that begins late at least kLateProbeTime.
inline constexpr platform::Duration kDoctorTime = std::chrono::seconds(9);
inline constexpr platform::Duration kLateProbeTime = std::chrono::milliseconds(500);

// Why a probe could not be made.
inline constexpr char kNoThread[] = "this system has no thread left to ask";

// The fact that `work` finds, which may wait for a disk or a name service. Other probes are made
// meanwhile.
template <typename T>
class PendingFact {
 public:
  PendingFact(platform::Instant deadline, std::function<Fact<T>()> work)
      : deadline_(deadline), fact_(std::move(work)) {}

  // Waits for it. Call it once.
  Fact<T> get() {
    if (!fact_.hasBegun()) return std::unexpected(NotKnown{NotKnown::Why::kFailed, kNoThread});
    auto fact = fact_.by(deadline_);
    if (fact) return *std::move(fact);
    return std::unexpected(NotKnown{NotKnown::Why::kTimedOut, {}});
  }

 private:
  platform::Instant deadline_;
  PendingResult<Fact<T>> fact_;
};

struct DoctorEnvironment {
  platform::PeerTransport& transport;
  const platform::PlatformConfiguration& configuration;
  platform::WallTime now;
  std::string hostProgram;  // the installed job host's path
};

// All facts, by the probes below, which are made side by side. Takes kDoctorTime and kLateProbeTime
// at most.
DoctorFacts probe(const DoctorEnvironment& environment);

// The servers: each is asked for a connection, which shows whether its loop turns. The first two
// leave out whether its program is the installed one.
ServerFact probeHost(const DoctorEnvironment& environment, const platform::ListenerPlaces& places);
ServerFact probeDaemon(const DoctorEnvironment& environment,
                       const platform::ListenerPlaces& places);
ServerFact probeBus(const platform::PlatformConfiguration& configuration);
ServerFact probeSystemd();

// The machine. These may wait for a disk or a name service.
Fact<std::vector<InstalledFile>> probeInstallation(const std::string& root,
                                                   const std::string& hostProgram);
Fact<GroupFact> probeGroup(const std::string& name);
Fact<std::vector<SocketFile>> probeSockets(const platform::PlatformConfiguration& configuration);
Fact<LimitsFact> probeLimits(const std::optional<platform::ProcessId>& host);
Fact<KernelFact> probeKernel(const std::string& root,
                             const std::optional<platform::ProcessId>& host);
Fact<AnchorsFact> probeAnchors(const std::string& root, platform::WallTime now);
Fact<ClockFact> probeClock(const std::string& root, platform::WallTime now);
Fact<DiskFact> probeDisk(const std::string& use, const std::string& path);

// The path of the service manager's program, and of its catalogue.
std::string daemonProgramOf(const std::string& root);
std::string catalogueOf(const std::string& root);

// Whether the process executes this file. It may wait for a disk.
Fact<bool> executesFile(platform::ProcessId process, const std::string& path);

// The fact that a failed system call leaves, by errno.
std::unexpected<NotKnown> notKnown(const std::string& what);
