#include "Tools/servicemanagerctl/OperatorCommands.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Explanation.h"
#include "Tools/servicemanagerctl/ExtensionsReport.h"
#include "Tools/servicemanagerctl/HealthReport.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

// More than these would hide the message.
constexpr std::size_t kMostNamedLabels = 100;

}  // namespace

OperatorCommands::OperatorCommands(CLI::App& app)
    : health_(app.add_subcommand("health", "How each service is, and how often it crashed")),
      explain_(app.add_subcommand("explain", "Why a service runs or does not")),
      extensions_(
          app.add_subcommand("extensions", "How each kernel extension is, and who uses it")) {
  for (CLI::App* command : {health_, explain_, extensions_}) {
    command->add_flag("--json", json_, "For programs");
  }
  health_->add_flag("--openmetrics", openMetrics_, "For monitoring systems")->excludes("--json");
  explain_->add_option("label", label_, "The service's label")->required();
}

int OperatorCommands::run(const DaemonClient::Environment& environment) const {
  const auto act = [&]() -> Answer<std::string> {
    const BlockedCallProgress progress({.what = "the service manager to answer"});
    DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
    if (const auto connected = daemon.connect(); !connected) {
      return std::unexpected(connected.error());
    }
    if (extensions_->parsed()) return extensions(daemon);
    return health_->parsed() ? health(daemon) : explain(daemon);
  };
  const Answer<std::string> text = act();
  if (!text) {
    fail(text.error().text);
    return text.error().exitStatus;
  }
  print(*text);
  return EXIT_SUCCESS;
}

Answer<std::string> OperatorCommands::health(DaemonClient& daemon) const {
  const auto record = askAboutAllServices(daemon, "healthRecordFrom:");
  if (!record) return std::unexpected(record.error());
  std::vector<std::string> labels;
  if (const Dictionary* services = (*record)[kHealthServices].dictionary()) {
    for (const auto& [label, service] : *services) labels.push_back(label);
  }
  const auto jobs = askForJobs(daemon, labels);
  if (!jobs) return std::unexpected(jobs.error());
  const auto report = healthReport(*record, *jobs);
  if (json_) return dumped(asJson(report));
  if (openMetrics_) return asOpenMetrics(report);
  return asTable(report, readerOf(STDOUT_FILENO));
}

Answer<std::string> OperatorCommands::explain(DaemonClient& daemon) const {
  const auto facts = daemon.ask("factsOfService:", {label_});
  if (!facts) return std::unexpected(facts.error());
  if (!facts->dictionary()) {
    const auto overview = askAboutAllServices(daemon, "overviewFrom:");
    return std::unexpected(overview ? unknownLabel(label_, *overview) : overview.error());
  }
  const Explanation explanation = ::explain(*facts);
  if (!json_) return withRootInHints(asText(explanation, readerOf(STDOUT_FILENO)));
  const Value all = withTrees(daemon, {label_}, Dictionary{{label_, *facts}});
  return dumped(asJson(explanation, all[label_]));
}

Answer<std::string> OperatorCommands::extensions(DaemonClient& daemon) const {
  const auto facts = daemon.ask("extensions");
  if (!facts) return std::unexpected(facts.error());
  if (isAnyLoadingUnknown(*facts))
    remark("the job host does not answer, so that not every extension is known to be loaded");
  if (json_) return dumped(jsonOfExtensions(*facts));
  return tableOfExtensions(*facts, readerOf(STDOUT_FILENO));
}

Refusal unknownLabel(const std::string& label, const Value& overview) {
  std::vector<std::string> known;
  for (const char* key : {kFactServices, kFactOtherServices}) {
    const Dictionary* services = overview[key].dictionary();
    if (!services) continue;
    for (const auto& [name, facts] : *services) known.push_back(plain(name));
  }
  if (known.size() > kMostNamedLabels) {
    return {kExitUnknownLabel,
            fmt::format("no service has the label \"{}\"; \"servicemanagerctl list\" tells which "
                        "there are",
                        abridged(label))};
  }
  std::ranges::sort(known);
  return {kExitUnknownLabel, fmt::format("no service has the label \"{}\"; there are: {}",
                                         abridged(label), fmt::join(known, ", "))};
}
