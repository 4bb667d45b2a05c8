#include "Tools/servicemanagerctl/RunCommand.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Processes/RestartPolicy.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "Tools/servicemanagerctl/ConfigurationFile.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/Plan.h"
#include "Tools/servicemanagerctl/PlanReport.h"
#include "Tools/servicemanagerctl/ServiceBench.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using platform::Dictionary;
using platform::Value;

std::unexpected<Refusal> refuseRun(const platform::Error& error) {
  return std::unexpected(
      Refusal{error.code == platform::ErrorCode::kDenied ? kExitNotPermitted : kExitFailed,
              describe(error)});
}

platform::Duration throttleOfJob(const Dictionary& job) {
  const auto seconds = job["ThrottleInterval"].integer();
  if (!seconds) return platform::kDefaultThrottleInterval;
  constexpr std::int64_t kMost = 86'400;
  return std::chrono::seconds(std::clamp<std::int64_t>(*seconds, 0, kMost));
}

platform::Result<std::string> hostProgram(const std::string& root) {
  if (!root.empty()) return platform::pathBelowRoot(root, "usr/bin/jobhost");
  const auto own = platform::runningExecutablePath();
  if (!own) return own;
  return own->substr(0, own->rfind('/') + 1) + "jobhost";
}

}  // namespace

RunCommand::RunCommand(CLI::App& app)
    : run_(
          app.add_subcommand("run", "Run one service of a catalogue here, as the job host would")) {
  run_->add_option("--catalogue", catalogue_, "The catalogue: a Service.plist")
      ->required()
      ->type_name("FILE");
  run_->add_option("--settings", settings_,
                   "The settings of each domain, as for plan: say whether it would run")
      ->type_name("FILE");
  run_->add_option("label", label_, "The service's label")->required();
}

Answer<Dictionary> RunCommand::job(const Value& catalogue) const {
  const Value job = jobInfoWithLabel(label_, catalogue);
  if (!job.dictionary()) {
    return std::unexpected(Refusal{
        kExitUnknownLabel,
        fmt::format("{}: there is no service \"{}\" with a program", catalogue_, plain(label_))});
  }
  Dictionary own = *job.dictionary();
  if (::geteuid() == 0) return own;
  for (const char* key : {"UserName", "GroupName"}) {
    if (own[key].isNil()) continue;
    own.remove(key);
    print(fmt::format("== \"{}\" is left out: only root can change it\n", key));
  }
  return own;
}

Answer<void> RunCommand::tellPlan(const Value& catalogue) const {
  if (settings_.empty()) return {};
  const auto settings = readConfigurationFile(settings_);
  if (!settings) return refuseRun(settings.error());
  // Any release will do, because the service runs on this machine in any case.
  auto plan = makePlan(ServiceCatalogue(*catalogue.dictionary()), settings->value,
                       std::numeric_limits<std::int32_t>::max());
  std::erase_if(plan, [this](const PlannedService& service) { return service.label != label_; });
  if (!plan.empty() && !plan.front().runs)
    print(
        "== with these settings the service manager would not run it; it is run here all the "
        "same\n");
  print(asTable(plan, readerOf(STDOUT_FILENO)));
  return {};
}

int RunCommand::run(const std::string& root) const {
  const auto refuse = [](const Refusal& refusal) {
    fail(refusal.text);
    return refusal.exitStatus;
  };
  const auto file = readConfigurationFile(catalogue_);
  if (!file) return refuse(refuseRun(file.error()).error());
  const auto job = this->job(file->value);
  if (!job) return refuse(job.error());
  if (const auto told = tellPlan(file->value); !told) return refuse(told.error());
  const auto host = hostProgram(root);
  if (!host) return refuse(refuseRun(host.error()).error());
  const auto loop = platform::AsioRunLoop::create();
  if (!loop) return refuse(refuseRun(loop.error()).error());
  const auto done = runOnBench({.hostProgram = *host,
                                .job = *job,
                                .label = label_,
                                .throttle = throttleOfJob(*job),
                                .now = [&loop] { return (*loop)->now(); }});
  return done ? EXIT_SUCCESS : fail(done.error());
}
