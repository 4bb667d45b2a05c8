#include "Tools/servicemanagerctl/ListCommand.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/BusyReport.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/ServiceQuery.h"
#include "Tools/servicemanagerctl/ServiceWhy.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

Answer<ServicesAnswer> askAtAGlance(const DaemonClient::Environment& environment,
                                    const std::vector<std::string>& patterns, Trees trees) {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  return askForServices(daemon, patterns, environment.objects.system,
                        environment.objects.loop.wallTime(), trees);
}

bool isOfUnknownState(const ServiceState& service) {
  return service.activity == ServiceState::Activity::kUnknown;
}

void remarkOnAnswer(const ServicesAnswer& answer) {
  if (const std::string work = mainThreadsWork(answer.overview); !work.empty())
    remark("the service manager's main thread is busy, and this is how it was before: it " + work);
  if (answer.overview[kFactIsTakingOver] == Value(true))
    remark("the service manager has just started and is still taking over the services");
  if (std::ranges::any_of(answer.services, isOfUnknownState))
    remark("the job host does not answer, so that not every service is known to run");
}

}  // namespace

ListCommand::ListCommand(CLI::App& app)
    : list_(app.add_subcommand("list", "All services: type, state, process, and why")),
      isRunning_(app.add_subcommand("is-running", "Whether all of these services run")),
      isFailed_(
          app.add_subcommand("is-failed", "Whether one of these services is to run and does not")) {
  list_->add_flag("--json", json_, "For programs");
  list_->add_flag("--wide", wide_, "With the processes of each service, their CPU time and memory");
  list_->add_option("label", labels_, "Their labels; \"*\" and \"?\" match as in a shell");
  list_->add_flag("--failed", failed_, "Only services that are to run and do not");
  list_->add_option("--type", type_, "Only services of this type: core or feature")
      ->check(CLI::IsMember({"core", "feature"}));
  list_->add_option("--fields", fields_, "The columns: " + namesOfFields());
  list_->add_flag("--value", value_, "For scripts: the fields alone, with a tabulator between")
      ->excludes("--json");
  for (CLI::App* command : {isRunning_, isFailed_}) {
    command->add_option("label", labels_, "The services' labels")->required();
    CLI::Option* const quiet =
        command->add_flag("-q,--quiet", quiet_, "Tell by the exit status alone");
    command->add_flag("--json", json_, "For programs")->excludes(quiet);
  }
}

int ListCommand::run(const DaemonClient::Environment& environment) const {
  const Answer<int> outcome = list_->parsed() ? list(environment) : judge(environment);
  if (outcome) return *outcome;
  fail(outcome.error().text);
  return outcome.error().exitStatus;
}

Answer<int> ListCommand::list(const DaemonClient::Environment& environment) const {
  const auto fields = this->fields();
  if (!fields) return std::unexpected(fields.error());
  const Trees trees = json_ || wide_ ? Trees::kAsked : Trees::kNone;
  auto answer = askAtAGlance(environment, labels_, trees);
  if (!answer) return std::unexpected(answer.error());
  std::vector<ServiceState>& services = answer->services;
  std::erase_if(services, [this](const ServiceState& service) { return !isSelected(service); });
  if (json_) {
    print(dumped(asJson(services)));
  } else if (value_) {
    sortForReading(services);
    print(asValues(services, fields->empty() ? ServiceFields{ServiceField::kLabel} : *fields));
  } else {
    sortForReading(services);
    const ServiceTable table{.fields = *fields,
                             .isWide = wide_,
                             .reader = readerOf(STDOUT_FILENO),
                             .width = widthOfTerminal(STDOUT_FILENO),
                             .now = environment.objects.loop.wallTime()};
    print(withRootInHints(bannerOf(answer->overview)) + asTable(services, table));
  }
  remarkOnAnswer(*answer);
  return EXIT_SUCCESS;
}

// The status 1 is for a no, whatever the reason is that it is not known.
Answer<int> ListCommand::judge(const DaemonClient::Environment& environment) const {
  const auto answer = askAtAGlance(environment, labels_, Trees::kNone);
  if (!answer) return std::unexpected(answer.error());
  const auto isOf = [](ServiceMark mark) {
    return [mark](const ServiceState& service) { return markOf(service) == mark; };
  };
  const std::vector<ServiceState>& services = answer->services;
  if (json_) {
    print(dumped(asJson(services)));
  } else if (!quiet_) {
    for (const ServiceState& service : services) {
      print(fmt::format("{}: {}{}{}\n", plain(service.job.label), inWords(service),
                        service.why.empty() ? "" : ", ", service.why));
    }
  }
  const bool isOld = !mainThreadsWork(answer->overview).empty();
  if (isOld && !quiet_) remarkOnAnswer(*answer);
  if (isOld && isRunning_->parsed()) return kExitFailed;
  const bool isSo =
      isRunning_->parsed()
          ? !services.empty() && std::ranges::all_of(services, isOf(ServiceMark::kRunning))
          : std::ranges::any_of(services, isOf(ServiceMark::kFailed));
  return isSo ? EXIT_SUCCESS : kExitFailed;
}

Answer<ServiceFields> ListCommand::fields() const {
  ServiceFields fields;
  for (std::string rest = fields_; !rest.empty();) {
    const std::size_t end = std::min(rest.find(','), rest.size());
    const std::string name = rest.substr(0, end);
    rest.erase(0, end + 1);
    const auto field = fieldNamed(name);
    if (!field) {
      return std::unexpected(Refusal{
          kExitNotUnderstood,
          fmt::format("there is no field \"{}\"; there are: {}", abridged(name), namesOfFields())});
    }
    fields.push_back(*field);
  }
  return fields;
}

bool ListCommand::isSelected(const ServiceState& service) const {
  if (failed_ && markOf(service) != ServiceMark::kFailed) return false;
  return type_.empty() || type_ == typeWord(service.type);
}
