#include "Tools/servicemanagerctl/PlanCommand.h"

#include <charconv>
#include <cstdlib>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/Files/PropertyListFile.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/PlatformRoot.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Catalogue/PathComponents.h"
#include "ServiceManager/Catalogue/ProductTypes.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/Arguments.h"
#include "Tools/servicemanagerctl/BlockedCallProgress.h"
#include "Tools/servicemanagerctl/ConfigurationFile.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/OperatorPages.h"
#include "Tools/servicemanagerctl/Output.h"
#include "Tools/servicemanagerctl/PlanReport.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;

// The kernel of release 10.N is N + 4.
constexpr std::int64_t kKernelOfFirstRelease = 4;

std::unexpected<Refusal> refusePlan(const Error& error) {
  return std::unexpected(
      Refusal{error.code == ErrorCode::kDenied ? kExitNotPermitted : kExitFailed, describe(error)});
}

std::unexpected<Refusal> refusePlan(std::string text, int status = kExitFailed) {
  return std::unexpected(Refusal{status, std::move(text)});
}

// The number at the beginning of the text.
std::optional<std::int64_t> leadingNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isWhole = stop == text.data() + text.size() || *stop == '.';
  return error == std::errc() && number >= 0 && isWhole ? std::optional(number) : std::nullopt;
}

std::string installTypeNames() {
  std::string names;
  for (const ProductType& product : productTypes())
    names += (names.empty() ? "" : ", ") + std::string(product.installTypeName);
  return names;
}

// Whether each service of the daemon's catalogue runs. A service of which the job host tells
// nothing counts as stopped.
Answer<std::map<std::string, bool>> readRunning(const DaemonClient::Environment& environment) {
  const BlockedCallProgress progress({.what = "the service manager to answer"});
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (const auto connected = daemon.connect(); !connected)
    return std::unexpected(connected.error());
  const auto overview = askAboutAllServices(daemon, "overviewFrom:");
  if (!overview) return std::unexpected(overview.error());
  std::vector<std::string> labels;
  if (const Dictionary* services = (*overview)[kFactServices].dictionary()) {
    for (const auto& [label, facts] : *services) labels.push_back(label);
  }
  const auto jobs = askForJobs(daemon, labels);
  if (!jobs) return std::unexpected(jobs.error());
  std::map<std::string, bool> running;
  for (const std::string& label : labels) {
    const Value& facts = (*jobs)[label];
    if (facts[kFactJobIsUnknown] == Value(true)) {
      return std::unexpected(
          Refusal{kExitFailed, "the job host does not answer, so it is not known what runs now"});
    }
    running[label] = jobState(label, facts[kFactJob]).process.has_value();
  }
  return running;
}

}  // namespace

PlanCommand::PlanCommand(CLI::App& app)
    : plan_(app.add_subcommand("plan", "What would run with a catalogue and settings, and why")) {
  plan_->add_option("--catalogue", catalogue_, "The catalogue: a Service.plist")
      ->required()
      ->type_name("FILE");
  plan_
      ->add_option("--settings", settings_,
                   "The settings of each domain, as JSON or a property list; without it, no "
                   "setting has a value")
      ->type_name("FILE");
  plan_->add_option("--release", release_,
                    "Of the system, as 10.11; else that of the platform root");
  plan_->add_option("--product", product_,
                    "As in the catalogue's Products; else the installed one, which the catalogue's "
                    "ProductInfo names");
  plan_->add_flag("--diff", isDiff_, "Only what would change against what runs now");
  plan_->add_flag("--json", json_, "For programs");
}

Answer<std::string> PlanCommand::product(const Value& catalogue) const {
  if (!product_.empty()) {
    for (const ProductType& product : productTypes()) {
      if (product.installTypeName == product_) return product_;
    }
    return refusePlan(fmt::format("there is no product \"{}\"; there are {}", abridged(product_),
                                  installTypeNames()),
                      kExitNotUnderstood);
  }
  const std::string* folder = catalogue[catalogue_keys::kProgramPath].string();
  const std::string* file = catalogue[catalogue_keys::kProductInfo].string();
  const std::string* key = catalogue[catalogue_keys::kProductInfoKey].string();
  const std::string advice =
      fmt::format("; say which with --product, one of {}", installTypeNames());
  if (!folder || !file || !key)
    return refusePlan("the catalogue does not say which product is installed" + advice);
  const auto information = readPropertyListFile(pathByAppendingComponent(*folder, *file));
  if (!information)
    return refusePlan(
        "it is not known which product is installed: " + describe(information.error()) + advice);
  const std::string* guid = (*information)[*key].string();
  const ProductType* installed = guid ? productTypeForGuid(*guid) : nullptr;
  if (!installed) return refusePlan("the installed product is not known" + advice);
  return std::string(installed->installTypeName);
}

Answer<std::int64_t> PlanCommand::kernel(const std::string& root) const {
  if (!release_.empty()) {
    const auto minor = release_.starts_with("10.")
                           ? leadingNumber(std::string_view(release_).substr(3))
                           : std::nullopt;
    if (minor) return *minor + kKernelOfFirstRelease;
    return refusePlan(
        fmt::format("\"{}\" is no release; one is written as 10.11", abridged(release_)),
        kExitNotUnderstood);
  }
  const auto program = runningExecutablePath();
  if (!program) return refusePlan(program.error());
  const auto found = root.empty() ? platformRootOfExecutable(*program) : platformRootAt(root);
  if (!found) return refusePlan(found.error());
  const auto configuration = readPlatformConfiguration(*found);
  if (!configuration) return refusePlan(configuration.error());
  return leadingNumber(configuration->kernelRelease).value_or(0);
}

Answer<PlanCommand::Situation> PlanCommand::decide(const std::string& root) const {
  const auto file = readConfigurationFile(catalogue_);
  if (!file) return refusePlan(file.error());
  const Value& catalogue = file->value;
  if (primaryServiceInfo(catalogue).isNil()) {
    return refusePlan(
        fmt::format("{}: the primary service has no job, so nothing would run; see "
                    "\"servicemanagerctl lint {}\"",
                    catalogue_, catalogue_));
  }
  Value settings;
  if (!settings_.empty()) {
    const auto read = readConfigurationFile(settings_);
    if (!read) return refusePlan(read.error());
    settings = read->value;
  }
  const auto product = this->product(catalogue);
  if (!product) return std::unexpected(product.error());
  const auto kernel = this->kernel(root);
  if (!kernel) return std::unexpected(kernel.error());
  Dictionary ofProduct = *catalogue.dictionary();
  ofProduct.set(catalogue_keys::kServices,
                servicesOfProduct(catalogue[catalogue_keys::kServices], *product));
  return Situation{*product, *kernel,
                   makePlan(ServiceCatalogue(std::move(ofProduct)), settings, *kernel)};
}

int PlanCommand::run(const std::string& root) const {
  const auto plan = decide(root);
  if (!plan) {
    fail(plan.error().text);
    return plan.error().exitStatus;
  }
  print(json_ ? dumped(asJson(plan->services, plan->product, plan->kernelMajorNumber))
              : asTable(plan->services, readerOf(STDOUT_FILENO)));
  return EXIT_SUCCESS;
}

int PlanCommand::run(const DaemonClient::Environment& environment) const {
  const auto plan = decide(environment.root);
  const auto running = plan ? readRunning(environment)
                            : Answer<std::map<std::string, bool>>(std::unexpected(plan.error()));
  if (!running) {
    fail(running.error().text);
    return running.error().exitStatus;
  }
  const std::vector<PlanChange> changes = changesOf(plan->services, *running);
  if (json_) {
    auto json = asJson(plan->services, plan->product, plan->kernelMajorNumber);
    json["changes"] = asJson(changes);
    print(dumped(json));
  } else {
    print(asText(changes, readerOf(STDOUT_FILENO)));
  }
  return EXIT_SUCCESS;
}
