#include "Tools/servicemanagerctl/ServiceCommands.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <utility>

#include <fmt/format.h>

#include "Platform/Jobs/Jobs.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/ActionRemarks.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ShownWait.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

// The service manager waits up to twelve seconds for a new job's process, and the job host may
// first have to stop an older one.
constexpr Duration kStartTime = std::chrono::seconds(60);
// A question that comes when the time is over gets this time, so that it has an answer.
constexpr Duration kShortestWait = std::chrono::milliseconds(100);
// The service manager returns to the normal mode 0.1 s after its answer.
constexpr Duration kReturnTime = std::chrono::milliseconds(200);
// More would hide the outcome.
constexpr std::size_t kMostRemarks = 10;
// The limit of a wait; it also bounds the sum of the catalogue's values.
constexpr std::int64_t kLongestWait = 24 * 60 * 60;

Array asArray(const std::vector<std::string>& labels) { return {labels.begin(), labels.end()}; }

// The return to the normal mode would end the work of an installer that has begun meanwhile, such
// as that of the next command of a script.
void awaitReturnToNormalMode(RunLoop& loop) {
  const auto timer = loop.startTimer(kReturnTime, RunLoop::Repeat::kOnce, [&loop] { loop.stop(); });
  loop.run();
}

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

// Answers when the service manager is no longer busy with these services. The operator's server
// then knows what has become of them.
Answer<Value> awaitSettled(const DaemonClient::Environment& environment,
                           const std::vector<std::string>& labels, Duration limit) {
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  return daemon.ask("awaitServices:", {asArray(labels)}, limit);
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

// Whether a service still has the process that it had before.
bool keepsProcess(const std::vector<ServiceState>& before, const std::vector<ServiceState>& after) {
  return !std::ranges::equal(before, after, [](const ServiceState& one, const ServiceState& other) {
    return !one.job.process || one.job.process != other.job.process;
  });
}

Duration startTime(std::size_t services) {
  return std::min<Duration>(kStartTime * static_cast<std::int64_t>(services),
                            std::chrono::seconds(kLongestWait));
}

WaitProgress::Wait startOf(const std::vector<std::string>& labels) {
  return {.what = labels.size() == 1 ? labels.front() + " to start"
                                     : fmt::format("{} services to start", labels.size())};
}

WaitProgress::Wait removalOf(const std::vector<std::string>& labels, const Value& catalogue) {
  if (labels.size() == 1)
    return WaitProgress::removalOf(labels.front(), exitTimeOutOf(labels.front(), catalogue));
  return {.what = fmt::format("{} services to end", labels.size())};
}

WaitProgress::Wait restartOf(const std::vector<std::string>& labels, const Value& catalogue) {
  if (labels.size() != 1) return {.what = fmt::format("{} services to restart", labels.size())};
  return {.what = labels.front() + " to restart", .note = removalOf(labels, catalogue).note};
}

}  // namespace

ServiceCommands::ServiceCommands(CLI::App& app)
    : start_(app.add_subcommand("start", "Start services, also ones that were stopped")),
      stop_(app.add_subcommand("stop",
                               "Stop services until they, or the service manager, are started "
                               "again")),
      restart_(app.add_subcommand("restart", "Stop services, then start them")),
      reloadSettings_(app.add_subcommand("reload-settings",
                                         "Read the settings again, and decide which services run")),
      installer_(app.add_subcommand("installer", "Make way for an installer")),
      begin_(installer_->add_subcommand("begin", "Stop services, until the installer ends")),
      end_(installer_->add_subcommand("end", "Let the service manager decide again")) {
  installer_->require_subcommand(1);
  for (CLI::App* command : {start_, stop_, restart_, reloadSettings_, begin_, end_}) {
    command->add_flag("--json", json_, "For programs");
  }
  for (CLI::App* command : {start_, stop_, restart_}) {
    command->add_flag("--wait,!--no-wait", wait_, "Until it is done, which is usual; or not");
    command->add_option("--timeout", timeOut_, "The seconds to wait")
        ->check(CLI::Range(std::int64_t{1}, kLongestWait));
  }
  for (CLI::App* command : {start_, stop_, restart_, begin_}) {
    command->add_option("label", labels_, "The services' labels")->required();
  }
  for (CLI::App* command : {start_, restart_})
    command->add_flag("--log", log_, "Show their log until they run or have failed");
}

bool ServiceCommands::parsed() const {
  return start_->parsed() || stop_->parsed() || restart_->parsed() || reloadSettings_->parsed() ||
         installer_->parsed();
}

int ServiceCommands::run(const DaemonClient::Environment& environment) const {
  const auto act = [&]() -> Answer<int> {
    if (end_->parsed()) return endInstaller(environment);
    if (begin_->parsed()) return beginInstaller(environment);
    if (reloadSettings_->parsed()) return reloadSettings(environment);
    DaemonClient userInterface(environment, kUserInterfaceServer,
                               kORBServiceManagerUserInterfaceProtocol);
    if (const auto connected = connect(userInterface); !connected)
      return std::unexpected(connected.error());
    if (start_->parsed()) return start(userInterface, environment);
    if (restart_->parsed()) return restart(userInterface, environment);
    return stop(userInterface, environment);
  };
  const Answer<int> outcome = act();
  if (outcome) return *outcome;
  const Refusal refusal = orOfIdle(outcome.error(), environment);
  fail(refusal.text);
  return refusal.exitStatus;
}

Answer<int> ServiceCommands::start(DaemonClient& userInterface,
                                   const DaemonClient::Environment& environment) const {
  const auto catalogue = readCatalogueWith(environment, labels_);
  if (!catalogue) return std::unexpected(catalogue.error());
  {
    const ShownWait shown(startOf(labels_), log_, environment, labels_);
    const auto done =
        request({"startServices:"}, userInterface, environment, startTime(labels_.size()));
    if (!done) return std::unexpected(done.error());
  }
  if (!wait_) return concludeWithoutWait("started");
  const auto services = readStates(environment, *catalogue, labels_);
  if (!services) return std::unexpected(services.error());
  return concludeWithRemarks(*services, true, environment);
}

Answer<int> ServiceCommands::stop(DaemonClient& userInterface,
                                  const DaemonClient::Environment& environment) const {
  const auto catalogue = readCatalogueWith(environment, labels_);
  if (!catalogue) return std::unexpected(catalogue.error());
  {
    const BlockedCallProgress progress(removalOf(labels_, *catalogue));
    const auto done =
        request({"stopServices:"}, userInterface, environment, removalTime(labels_, *catalogue));
    if (!done) return std::unexpected(done.error());
  }
  if (!wait_) return concludeWithoutWait("stopped");
  const auto services = readStates(environment, *catalogue, labels_);
  if (!services) return std::unexpected(services.error());
  return concludeWithRemarks(*services, false, environment);
}

// The start is asked for together with the stop, and the service manager starts each service when
// its stop is over. If this command asked later, its time-out or end would leave services stopped.
Answer<int> ServiceCommands::restart(DaemonClient& userInterface,
                                     const DaemonClient::Environment& environment) const {
  const auto catalogue = readCatalogueWith(environment, labels_);
  if (!catalogue) return std::unexpected(catalogue.error());
  const auto before = readStates(environment, *catalogue, labels_);
  if (!before) return std::unexpected(before.error());
  {
    const ShownWait shown(restartOf(labels_, *catalogue), log_, environment, labels_);
    const auto done = request({"stopServices:", "startServices:"}, userInterface, environment,
                              removalTime(labels_, *catalogue) + startTime(labels_.size()));
    if (!done) return std::unexpected(done.error());
  }
  if (!wait_) return concludeWithoutWait("restarted");
  const auto after = readStates(environment, *catalogue, labels_);
  if (!after) return std::unexpected(after.error());
  if (keepsProcess(*before, *after)) return conclude(*after, false);
  return concludeWithRemarks(*after, true, environment);
}

Answer<void> ServiceCommands::request(std::initializer_list<std::string_view> selectors,
                                      DaemonClient& userInterface,
                                      const DaemonClient::Environment& environment,
                                      Duration usualTime) const {
  for (const std::string_view selector : selectors) {
    if (const auto sent = userInterface.ask(selector, {asArray(labels_)}); !sent)
      return std::unexpected(sent.error());
  }
  if (wait_) return awaitServices(userInterface, environment, usualTime);
  // The requests have no answer; that to the next question shows that they were taken.
  const auto taken = userInterface.ask("pidForService:", {labels_.front()});
  if (!taken) return std::unexpected(taken.error());
  return {};
}

// The requests before have no answer. The first question here is answered when the service manager
// has taken them, the second one when they are done.
Answer<void> ServiceCommands::awaitServices(DaemonClient& userInterface,
                                            const DaemonClient::Environment& environment,
                                            Duration usualTime) const {
  const Duration limit = timeOut_ ? Duration(std::chrono::seconds(*timeOut_)) : usualTime;
  const RunLoop& loop = environment.objects.loop;
  const Instant deadline = loop.now() + limit;
  auto done = userInterface.ask("pidForService:", {labels_.front()},
                                std::min(limit, DaemonClient::kTimeOut));
  if (done) {
    done = awaitSettled(environment, labels_,
                        std::max<Duration>(deadline - loop.now(), kShortestWait));
  }
  if (done) return {};
  if (!timeOut_ || loop.now() < deadline) return std::unexpected(done.error());
  return std::unexpected(
      Refusal{kExitTimedOut, fmt::format("it was not done within {} s, and still goes on; "
                                         "\"servicemanagerctl explain {}\" tells how far it is",
                                         *timeOut_, abridged(labels_.front()))});
}

// The message is that of an installer's end, so it must not come while one is at work.
Answer<int> ServiceCommands::reloadSettings(const DaemonClient::Environment& environment) const {
  {
    DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
    if (const auto connected = connect(daemon); !connected)
      return std::unexpected(connected.error());
    const auto overview = daemon.ask("overviewFrom:", {0});
    if (!overview) return std::unexpected(overview.error());
    if ((*overview)[kFactIsInstallerAtWork] == Value(true)) {
      return std::unexpected(
          Refusal{kExitFailed,
                  "an installer is at work, and nothing is evaluated until its end; it ends with "
                  "\"servicemanagerctl installer end\""});
    }
  }
  return evaluate(environment,
                  "The settings are read again, and decide anew which services run.\n");
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
    const auto settled = awaitSettled(environment, labels_, DaemonClient::kTimeOut);
    if (!settled) return std::unexpected(settled.error());
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
  return evaluate(environment, "The service manager decides anew which services run.\n");
}

Answer<int> ServiceCommands::evaluate(const DaemonClient::Environment& environment,
                                      const std::string& sentence) const {
  DaemonClient installer(environment, kInstallerServer, kORBServiceManagerInstallerProtocol);
  if (const auto connected = connect(installer); !connected)
    return std::unexpected(connected.error());
  const auto answer = installer.ask("evaluateServices");
  if (!answer) return std::unexpected(answer.error());
  if (*answer != Value(true))
    return std::unexpected(Refusal{kExitFailed,
                                   "the service manager did not take the request; see "
                                   "\"servicemanagerctl log\""});
  awaitReturnToNormalMode(environment.objects.loop);
  print(json_ ? dumpedAnswer(nlohmann::ordered_json{{"evaluating", true}}) : sentence);
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

int ServiceCommands::concludeWithRemarks(const std::vector<ServiceState>& services, bool shouldRun,
                                         const DaemonClient::Environment& environment) const {
  const int status = conclude(services, shouldRun);
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (!daemon.connect()) return status;
  std::size_t remarks = 0;
  for (const std::string& label : labels_) {
    const auto facts = daemon.ask("factsOfService:", {label});
    if (!facts || remarks == kMostRemarks) break;
    const std::string text = shouldRun ? remarkAfterStart(*facts) : remarkAfterStop(*facts);
    if (text.empty()) continue;
    remark(text);
    ++remarks;
  }
  if (!shouldRun && status == EXIT_SUCCESS) remark(lastingOfStop(labels_));
  return status;
}

int ServiceCommands::concludeWithoutWait(std::string_view what) const {
  const auto json = [&] {
    auto list = nlohmann::ordered_json::array();
    for (const std::string& label : labels_) list.push_back({{"label", label}, {"asked", what}});
    return dumped(list);
  };
  std::string text;
  for (const std::string& label : labels_)
    text += fmt::format("{} is to be {}.\n", plain(label), what);
  print(json_ ? json() : text);
  return EXIT_SUCCESS;
}
