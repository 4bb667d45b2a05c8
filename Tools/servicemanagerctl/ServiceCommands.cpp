#include "Tools/servicemanagerctl/ServiceCommands.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Jobs/Jobs.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/BusyReport.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

// The service manager waits up to twelve seconds for a new job's process, and the job host may
// first have to stop an older one.
constexpr Duration kStartTime = std::chrono::seconds(60);
// The limit of a wait; it also bounds the sum of the catalogue's values.
constexpr std::int64_t kLongestWait = 24 * 60 * 60;

Array asArray(const std::vector<std::string>& labels) { return {labels.begin(), labels.end()}; }

Answer<void> connect(DaemonClient& daemon) {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  return daemon.connect();
}

// Asks the operator's server. The user interface's server would report services as stopped if the
// job host does not answer.
Answer<std::vector<ServiceState>> readStates(const DaemonClient::Environment& environment,
                                             const Value& catalogue,
                                             const std::vector<std::string>& labels) {
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  const auto jobs = askForJobs(daemon, labels);
  if (!jobs) return std::unexpected(jobs.error());
  std::vector<ServiceState> states;
  for (const std::string& label : labels)
    states.push_back(serviceState(label, catalogue, (*jobs)[label], environment.objects.system));
  return states;
}

// The entries of these services in the catalogue. Fails if one of the labels is unknown, before the
// command touches any service.
Answer<Value> readCatalogueWith(const DaemonClient::Environment& environment,
                                const std::vector<std::string>& labels) {
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = connect(daemon); !connected) return std::unexpected(connected.error());
  auto catalogue = askForEntries(daemon, labels);
  if (!catalogue) return catalogue;
  std::string unknown;
  for (const std::string& label : labels) {
    if (catalogue->dictionary()->contains(label)) continue;
    unknown += fmt::format("{}\"{}\"", unknown.empty() ? "" : ", ", abridged(label));
  }
  if (unknown.empty()) return catalogue;
  return std::unexpected(
      Refusal{kExitUnknownLabel,
              fmt::format("no service has the label {}; \"servicemanagerctl list\" tells which "
                          "there are. Nothing was done",
                          unknown)});
}

std::int64_t exitTimeOutOf(const std::string& label, const Value& catalogue) {
  const auto given = catalogue[label]["JobSpec"]["ExitTimeOut"].integer();
  return std::clamp<std::int64_t>(given.value_or(kDefaultExitTimeOut), 0, kLongestWait);
}

// How long the removal of these services may take, at the most. A time-out of 0 means that a
// process is never killed.
Duration removalTime(const std::vector<std::string>& labels, const Value& catalogue) {
  std::int64_t seconds = 0;
  for (const std::string& label : labels) {
    const std::int64_t exitTimeOut = exitTimeOutOf(label, catalogue);
    seconds += exitTimeOut == 0 ? kLongestWait : exitTimeOut;
  }
  return DaemonClient::kTimeOut + std::chrono::seconds(std::min(seconds, kLongestWait));
}

bool isUnknown(const ServiceState& service) {
  return service.activity == ServiceState::Activity::kUnknown;
}

WaitProgress::Wait removalOf(const std::vector<std::string>& labels, const Value& catalogue) {
  if (labels.size() == 1)
    return WaitProgress::removalOf(labels.front(), exitTimeOutOf(labels.front(), catalogue));
  return {.what = fmt::format("{} services to end", labels.size())};
}

}  // namespace

ServiceCommands::ServiceCommands(CLI::App& app)
    : list_(
          app.add_subcommand("list", "All services: type, state, process, how the last one ended")),
      start_(app.add_subcommand("start", "Start services, also ones that were stopped")),
      stop_(app.add_subcommand("stop", "Stop services until they are started again")),
      installer_(app.add_subcommand("installer", "Make way for an installer")),
      begin_(installer_->add_subcommand("begin", "Stop services, until the installer ends")),
      end_(installer_->add_subcommand("end", "Let the service manager decide again")) {
  installer_->require_subcommand(1);
  for (CLI::App* command : {list_, start_, stop_, begin_, end_}) {
    command->add_flag("--json", json_, "For programs");
  }
  list_->add_flag("--wide", wide_, "With the processes of each service, their CPU time and memory");
  for (CLI::App* command : {start_, stop_, begin_}) {
    command->add_option("label", labels_, "The services' labels")->required();
  }
}

bool ServiceCommands::parsed() const {
  return list_->parsed() || start_->parsed() || stop_->parsed() || installer_->parsed();
}

int ServiceCommands::run(const DaemonClient::Environment& environment) const {
  const auto act = [&]() -> Answer<int> {
    if (list_->parsed()) return list(environment);
    if (end_->parsed()) return endInstaller(environment);
    if (begin_->parsed()) return beginInstaller(environment);
    DaemonClient userInterface(environment, kUserInterfaceServer,
                               kORBServiceManagerUserInterfaceProtocol);
    if (const auto connected = connect(userInterface); !connected)
      return std::unexpected(connected.error());
    if (start_->parsed()) return start(userInterface, environment);
    return stop(userInterface, environment);
  };
  const Answer<int> outcome = act();
  if (outcome) return *outcome;
  fail(outcome.error().text);
  return outcome.error().exitStatus;
}

// Asks the operator's server alone, which answers also while the daemon's main thread is busy.
Answer<std::vector<ServiceState>> ServiceCommands::readAll(
    const DaemonClient::Environment& environment) const {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  const auto overview = askAboutAllServices(daemon, "overviewFrom:");
  if (!overview) return std::unexpected(overview.error());
  if (const std::string work = mainThreadsWork(*overview); !work.empty())
    remark("the service manager's main thread is busy, and this is how it was before: it " + work);
  if ((*overview)[kFactIsTakingOver] == Value(true))
    remark("the service manager has just started and is still taking over the services");
  const Value& services = (*overview)[kFactServices];
  std::vector<std::string> labels;
  if (services.dictionary()) {
    for (const auto& [label, facts] : *services.dictionary()) labels.push_back(label);
  }
  std::ranges::sort(labels);
  auto jobs = askForJobs(daemon, labels);
  if (!jobs) return std::unexpected(jobs.error());
  if (json_ || wide_) jobs = withTrees(daemon, labels, *jobs);
  std::vector<ServiceState> states;
  for (const std::string& label : labels) {
    states.push_back(
        listedService(label, services[label], (*jobs)[label], environment.objects.system));
  }
  return states;
}

Answer<int> ServiceCommands::list(const DaemonClient::Environment& environment) const {
  const auto services = readAll(environment);
  if (!services) return std::unexpected(services.error());
  const Columns columns = wide_ ? Columns::kWide : Columns::kUsual;
  print(json_ ? dumped(asJson(*services)) : asTable(*services, readerOf(STDOUT_FILENO), columns));
  if (std::ranges::any_of(*services, isUnknown))
    remark("the job host does not answer, so that not every service is known to run");
  return EXIT_SUCCESS;
}

Answer<int> ServiceCommands::start(DaemonClient& userInterface,
                                   const DaemonClient::Environment& environment) const {
  const auto catalogue = readCatalogueWith(environment, labels_);
  if (!catalogue) return std::unexpected(catalogue.error());
  Answer<std::vector<ServiceState>> services;
  {
    const BlockedCallProgress progress(
        {.what = labels_.size() == 1 ? labels_.front() + " to start"
                                     : fmt::format("{} services to start", labels_.size())});
    const auto sent = userInterface.ask("startServices:", {asArray(labels_)});
    if (!sent) return std::unexpected(sent.error());
    const auto done = awaitServices(userInterface, environment,
                                    kStartTime * static_cast<std::int64_t>(labels_.size()));
    if (!done) return std::unexpected(done.error());
    services = readStates(environment, *catalogue, labels_);
  }
  if (!services) return std::unexpected(services.error());
  return conclude(*services, true);
}

// The request before has no answer. The first question here is answered when the service manager
// has taken it, the second one when it is done.
Answer<Value> ServiceCommands::awaitServices(DaemonClient& userInterface,
                                             const DaemonClient::Environment& environment,
                                             Duration timeOut) const {
  auto taken = userInterface.ask("pidForService:", {labels_.front()});
  if (!taken) return taken;
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  return daemon.ask("awaitServices:", {asArray(labels_)}, timeOut);
}

Answer<int> ServiceCommands::stop(DaemonClient& userInterface,
                                  const DaemonClient::Environment& environment) const {
  const auto catalogue = readCatalogueWith(environment, labels_);
  if (!catalogue) return std::unexpected(catalogue.error());
  Answer<std::vector<ServiceState>> services;
  {
    const BlockedCallProgress progress(removalOf(labels_, *catalogue));
    const auto sent = userInterface.ask("stopServices:", {asArray(labels_)});
    if (!sent) return std::unexpected(sent.error());
    const auto done = awaitServices(userInterface, environment, removalTime(labels_, *catalogue));
    if (!done) return std::unexpected(done.error());
    services = readStates(environment, *catalogue, labels_);
  }
  if (!services) return std::unexpected(services.error());
  return conclude(*services, false);
}

Answer<int> ServiceCommands::beginInstaller(const DaemonClient::Environment& environment) const {
  const auto catalogue = readCatalogueWith(environment, labels_);
  if (!catalogue) return std::unexpected(catalogue.error());
  DaemonClient installer(environment, kInstallerServer, kORBServiceManagerInstallerProtocol);
  if (const auto connected = connect(installer); !connected)
    return std::unexpected(connected.error());
  Answer<std::vector<ServiceState>> services;
  bool haveAllStopped = false;
  {
    const BlockedCallProgress progress(removalOf(labels_, *catalogue));
    const auto done =
        installer.ask("shutdownServices:", {asArray(labels_)}, removalTime(labels_, *catalogue));
    if (!done) return std::unexpected(done.error());
    haveAllStopped = *done == Value(true);
    services = readStates(environment, *catalogue, labels_);
  }
  if (!services) return std::unexpected(services.error());
  const int status = conclude(*services, false);
  if (!json_)
    print(
        withRootInHints("None of these is started by itself until \"servicemanagerctl installer "
                        "end\", or until the "
                        "configuration server ends and starts again.\n"));
  // A service may have stopped since.
  if (status == EXIT_SUCCESS && !haveAllStopped)
    return fail("not every service could be stopped; \"servicemanagerctl log\" tells why");
  return status;
}

Answer<int> ServiceCommands::endInstaller(const DaemonClient::Environment& environment) const {
  DaemonClient installer(environment, kInstallerServer, kORBServiceManagerInstallerProtocol);
  if (const auto connected = connect(installer); !connected)
    return std::unexpected(connected.error());
  const auto answer = installer.ask("evaluateServices");
  if (!answer) return std::unexpected(answer.error());
  if (*answer != Value(true))
    return std::unexpected(Refusal{kExitFailed,
                                   "the service manager did not take the request; see "
                                   "\"servicemanagerctl log\""});
  print(json_ ? dumped(nlohmann::ordered_json{{"evaluating", true}})
              : "The service manager decides anew which services run.\n");
  return EXIT_SUCCESS;
}

int ServiceCommands::conclude(const std::vector<ServiceState>& services, bool shouldRun) const {
  bool asWanted = true;
  std::string text;
  for (const ServiceState& service : services) {
    asWanted = asWanted && service.job.process.has_value() == shouldRun;
    text += asSentence(service);
  }
  print(json_ ? dumped(asJson(services)) : text);
  if (std::ranges::any_of(services, isUnknown)) {
    return fail(
        fmt::format("the job host does not answer, so that not every service is known to {}; "
                    "\"servicemanagerctl list\" tells once it does, and then try again",
                    shouldRun ? "run" : "be stopped"));
  }
  if (asWanted) return EXIT_SUCCESS;
  return fail(fmt::format("not every service {}; \"servicemanagerctl log\" tells why",
                          shouldRun ? "runs" : "is stopped"));
}
