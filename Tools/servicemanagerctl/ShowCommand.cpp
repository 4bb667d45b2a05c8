#include "Tools/servicemanagerctl/ShowCommand.h"

#include <cstdlib>
#include <optional>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/LabelLog.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/LogEntry.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ServiceDetails.h"
#include "Tools/servicemanagerctl/TimeWords.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

constexpr std::size_t kLinesShown = 10;
constexpr std::size_t kMostLinesShown = 10'000;

// Its process may have been started before the lines that are read.
LogFilter filterOf(const JobState& job) {
  LogFilter filter{.labels = {job.label}};
  if (job.process) filter.processes.insert(*job.process);
  return filter;
}

}  // namespace

ShowCommand::ShowCommand(CLI::App& app)
    : show_(app.add_subcommand("show", "One service: its process, last ends and next start")) {
  show_->add_option("label", label_, "The service's label")->required();
  show_->add_flag("--json", json_, "For programs");
  show_->add_option("--lines", lines_, "So many of its last log lines; 10 without this")
      ->check(CLI::Range(std::size_t{0}, kMostLinesShown));
}

int ShowCommand::run(const DaemonClient::Environment& environment) const {
  const Answer<std::string> text = show(environment);
  if (!text) {
    fail(text.error().text);
    return text.error().exitStatus;
  }
  print(*text);
  return EXIT_SUCCESS;
}

Answer<std::string> ShowCommand::show(const DaemonClient::Environment& environment) const {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  auto facts = daemon.ask("factsOfService:", {label_});
  if (!facts) return std::unexpected(facts.error());
  if (!facts->dictionary()) {
    const auto overview = askAboutAllServices(daemon, "overviewFrom:");
    return std::unexpected(overview ? unknownLabel(label_, labelsIn(*overview)) : overview.error());
  }
  facts = withTrees(daemon, {label_}, Dictionary{{label_, *facts}})[label_];
  const WallTime now = environment.objects.loop.wallTime();
  const JobState job = jobState(label_, (*facts)[kFactJob]);
  std::optional<WallTime> started;
  if (job.process) started = startOfProcess(*job.process, now);
  if (!json_) {
    return withRootInHints(detailsAsText(*facts, started, now, readerOf(STDOUT_FILENO))) +
           logAsText(environment, job);
  }
  nlohmann::ordered_json json = detailsAsJson(*facts, started, now);
  if (lines_) json["log"] = logAsJson(environment, job);
  return dumpedAnswer(json);
}

std::string ShowCommand::logAsText(const DaemonClient::Environment& environment,
                                   const JobState& job) const {
  const std::size_t lines = lines_.value_or(kLinesShown);
  if (lines == 0) return {};
  const auto entries = LabelLog(*environment.configuration, filterOf(job)).read(lines);
  if (!entries)
    return fmt::format("\nIts log is not shown: {}\n", escaped(describe(entries.error())));
  if (entries->empty()) return {};
  std::string text = "\nIts last log lines:\n\n";
  for (const LogEntry& entry : *entries) text += "  " + asText(entry);
  return text;
}

nlohmann::ordered_json ShowCommand::logAsJson(const DaemonClient::Environment& environment,
                                              const JobState& job) const {
  auto list = nlohmann::ordered_json::array();
  if (*lines_ == 0) return list;
  const auto entries = LabelLog(*environment.configuration, filterOf(job)).read(*lines_);
  if (!entries) return nullptr;
  for (const LogEntry& entry : *entries) list.push_back(asJson(entry));
  return list;
}
