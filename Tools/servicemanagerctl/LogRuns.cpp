#include "Tools/servicemanagerctl/LogRuns.h"

#include <algorithm>
#include <optional>

#include <fmt/format.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/TimeWords.h"

using namespace platform;

namespace {

// Nothing if it has not run since the job host counts.
std::optional<WallTime> beginOfRun(const JobState& job, WallTime now) {
  if (job.process) return startOfProcess(*job.process, now);
  if (!job.history || job.history->lastEnds.empty()) return std::nullopt;
  const JobHistory::End& last = job.history->lastEnds.back();
  return last.at - last.ran;
}

}  // namespace

Answer<WallTime> beginOfRuns(const DaemonClient::Environment& environment,
                             const std::vector<std::string>& labels) {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  const WallTime now = environment.objects.loop.wallTime();
  std::optional<WallTime> begin;
  for (const std::string& label : labels) {
    const auto facts = daemon.ask("factsOfService:", {label});
    if (!facts) return std::unexpected(facts.error());
    if (!facts->dictionary()) {
      const auto overview = askAboutAllServices(daemon, "overviewFrom:");
      return std::unexpected(overview ? unknownLabel(label, labelsIn(*overview))
                                      : overview.error());
    }
    const auto run = beginOfRun(jobState(label, (*facts)[kFactJob]), now);
    if (run) begin = begin ? std::min(*begin, *run) : *run;
  }
  if (begin) return *begin;
  return std::unexpected(Refusal{
      kExitFailed, fmt::format("{} has not run since the job host was started", labels.front())});
}

std::set<std::int64_t> processesOf(const DaemonClient::Environment& environment,
                                   const std::vector<std::string>& labels) {
  std::set<std::int64_t> processes;
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (!daemon.connect()) return processes;
  for (const std::string& label : labels) {
    const auto facts = daemon.ask("factsOfService:", {label});
    if (!facts) break;
    if (!facts->dictionary()) continue;
    if (const JobState job = jobState(label, (*facts)[kFactJob]); job.process)
      processes.insert(*job.process);
  }
  return processes;
}

Answer<void> checkLabels(const DaemonClient::Environment& environment,
                         const std::vector<std::string>& labels) {
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (!daemon.connect()) return {};
  for (const std::string& label : labels) {
    const auto facts = daemon.ask("factsOfService:", {label});
    if (!facts || facts->dictionary()) continue;
    const auto overview = askAboutAllServices(daemon, "overviewFrom:");
    if (overview) return std::unexpected(unknownLabel(label, labelsIn(*overview)));
  }
  return {};
}
