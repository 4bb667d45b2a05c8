#include "Tools/servicemanagerctl/OperatorCommands.h"

#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Explanation.h"
#include "Tools/servicemanagerctl/ExtensionsReport.h"
#include "Tools/servicemanagerctl/HealthReport.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

// The hints get their root before a line break divides them.
std::string textForReader(Explanation explanation) {
  explanation.verdict = withRootInHints(explanation.verdict);
  for (auto& [heading, sentence] : explanation.details) sentence = withRootInHints(sentence);
  return asText(explanation, readerOf(STDOUT_FILENO), widthOfTerminal(STDOUT_FILENO));
}

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
  CLI::Option* const label = explain_->add_option("label", label_, "The service's label");
  CLI::Option* const all = explain_->add_flag("--all", all_, "All services");
  explain_->add_flag("--not-running", notRunning_, "Only those without a process")->needs(all);
  label->excludes(all);
}

int OperatorCommands::run(const DaemonClient::Environment& environment) const {
  if (explain_->parsed() && !all_ && label_.empty()) {
    fail("explain needs the label of a service, or --all");
    return kExitNotUnderstood;
  }
  const auto act = [&]() -> Answer<std::string> {
    const BlockedCallProgress progress({.what = "the service manager to answer"});
    DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
    if (const auto connected = daemon.connect(); !connected) {
      return std::unexpected(connected.error());
    }
    if (explain_->parsed()) return explain(daemon);
    // An idle one has neither a health record nor extensions.
    if (const auto page = askForPage(daemon, "overviewFrom:", 0); !page)
      return std::unexpected(page.error());
    if (extensions_->parsed()) return extensions(daemon);
    return health(daemon);
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
  if (json_) return dumpedAnswer(asJson(report));
  if (openMetrics_) return asOpenMetrics(report);
  return asTable(report, readerOf(STDOUT_FILENO));
}

Answer<std::string> OperatorCommands::explain(DaemonClient& daemon) const {
  if (all_) return explainAll(daemon);
  const auto facts = daemon.ask("factsOfService:", {label_});
  if (!facts) return std::unexpected(facts.error());
  if (!facts->dictionary()) {
    const auto overview = askAboutAllServices(daemon, "overviewFrom:");
    return std::unexpected(overview ? unknownLabel(label_, labelsIn(*overview)) : overview.error());
  }
  const Explanation explanation = ::explain(*facts);
  if (!json_) return textForReader(explanation);
  const Value all = withTrees(daemon, {label_}, Dictionary{{label_, *facts}});
  return dumpedAnswer(asJson(explanation, all[label_]));
}

// The services are explained one after the other, so the facts are of slightly different times.
Answer<std::string> OperatorCommands::explainAll(DaemonClient& daemon) const {
  const auto overview = askAboutAllServices(daemon, "overviewFrom:");
  if (!overview) return std::unexpected(overview.error());
  auto json = nlohmann::ordered_json::array();
  std::string text;
  for (const std::string& label :
       labelsIn(Dictionary{{kFactServices, (*overview)[kFactServices]}})) {
    const auto facts = daemon.ask("factsOfService:", {label});
    if (!facts) return std::unexpected(facts.error());
    const Explanation explanation = ::explain(*facts);
    if (notRunning_ && explanation.runs) continue;
    if (json_) {
      json.push_back(asJson(explanation, *facts));
    } else {
      text += (text.empty() ? "" : "\n") + textForReader(explanation);
    }
  }
  if (json_) return dumped(json);
  return text.empty() ? "All services run.\n" : text;
}

Answer<std::string> OperatorCommands::extensions(DaemonClient& daemon) const {
  const auto facts = daemon.ask("extensions");
  if (!facts) return std::unexpected(facts.error());
  if (isAnyLoadingUnknown(*facts))
    remark("the job host does not answer, so that not every extension is known to be loaded");
  if (json_) return dumped(jsonOfExtensions(*facts));
  return tableOfExtensions(*facts, readerOf(STDOUT_FILENO));
}
