#include "Tools/servicemanagerctl/ShowCommand.h"

#include <cstdlib>
#include <optional>

#include <unistd.h>

#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Labels.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ServiceDetails.h"
#include "Tools/servicemanagerctl/TimeWords.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

ShowCommand::ShowCommand(CLI::App& app)
    : show_(app.add_subcommand("show", "One service: its process, last ends and next start")) {
  show_->add_option("label", label_, "The service's label")->required();
  show_->add_flag("--json", json_, "For programs");
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
  std::optional<WallTime> started;
  if (const auto process = jobState(label_, (*facts)[kFactJob]).process)
    started = startOfProcess(*process, now);
  return json_ ? dumpedAnswer(detailsAsJson(*facts, started, now))
               : withRootInHints(detailsAsText(*facts, started, now, readerOf(STDOUT_FILENO)));
}
