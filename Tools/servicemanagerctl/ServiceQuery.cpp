#include "Tools/servicemanagerctl/ServiceQuery.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/ServiceWhy.h"
#include "Tools/servicemanagerctl/TimeWords.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

// The answer about many jobs has no last ends.
bool lacksLastEnds(const Value& jobFacts) {
  const auto history = jobHistoryIn(jobFacts[kFactJob]);
  return history && history->ends > 0 && history->lastEnds.empty() &&
         jobFacts[kFactJob]["PID"].isNil();
}

Answer<Value> askForListedJobs(DaemonClient& daemon, const std::vector<std::string>& labels) {
  auto jobs = askForJobs(daemon, labels);
  if (!jobs || !jobs->dictionary()) return jobs;
  std::vector<std::string> ended;
  for (const auto& [label, facts] : *jobs->dictionary()) {
    if (lacksLastEnds(facts)) ended.push_back(label);
  }
  if (ended.empty()) return jobs;
  const auto more = askForJobsWithEnds(daemon, ended);
  if (!more || !more->dictionary()) return more;
  Dictionary all = *jobs->dictionary();
  for (const auto& [label, facts] : *more->dictionary()) all.set(label, facts);
  return Value(std::move(all));
}

std::optional<WallTime> sinceWhen(const JobState& job, WallTime now) {
  if (job.process) return startOfProcess(*job.process, now);
  if (!job.history || job.history->lastEnds.empty()) return std::nullopt;
  return job.history->lastEnds.back().at;
}

bool needsReason(const ServiceState& service) {
  return !service.job.process && service.activity != ServiceState::Activity::kUnknown;
}

}  // namespace

Answer<ServicesAnswer> askForServices(DaemonClient& daemon,
                                      const std::vector<std::string>& patterns,
                                      const SystemInformation& system, WallTime now, Trees trees) {
  const auto overview = askAboutAllServices(daemon, "overviewFrom:");
  if (!overview) return std::unexpected(overview.error());
  const Value& facts = (*overview)[kFactServices];
  const auto labels = selectLabels(patterns, labelsIn(Dictionary{{kFactServices, facts}}));
  if (!labels) return std::unexpected(labels.error());
  auto jobs = askForListedJobs(daemon, *labels);
  if (!jobs) return std::unexpected(jobs.error());
  if (trees == Trees::kAsked) jobs = withTrees(daemon, *labels, *jobs);
  ServicesAnswer answer{.overview = *overview, .services = {}};
  std::vector<std::string> down;
  for (const std::string& label : *labels) {
    answer.services.push_back(listedService(label, facts[label], (*jobs)[label], system));
    if (needsReason(answer.services.back())) down.push_back(label);
  }
  const auto reasons = askForReasons(daemon, down);
  if (!reasons) return std::unexpected(reasons.error());
  for (ServiceState& service : answer.services) {
    const std::string& label = service.job.label;
    const Value& reason = (*reasons)[label];
    if (const std::string* word = reason[kFactReason].string()) service.reason = *word;
    service.since = sinceWhen(service.job, now);
    service.why = whyInWords(service, facts[label], reason, now);
  }
  return answer;
}

std::string bannerOf(const Value& overview) {
  std::string text;
  const auto mode = overview[kFactOperatingMode].integer();
  if (overview[kFactIsInstallerAtWork] == Value(true) || mode == ORBOperatingModeInstaller) {
    text +=
        "An installer is at work: what it has stopped is not started until \"servicemanagerctl "
        "installer end\".\n";
  }
  if (mode == ORBOperatingModeWaitingForPrimaryService) {
    const std::string* primary = overview[kFactPrimary].string();
    text += fmt::format(
        "The configuration server is not up, and no service is started until it is: "
        "\"servicemanagerctl explain {}\".\n",
        primary ? plain(*primary) : "");
  }
  if (const auto due = overview[kFactSettingsEvaluationIn].real()) {
    text += fmt::format("A setting was changed: everything is evaluated in {:.1f} s.\n", *due);
  }
  return text;
}
