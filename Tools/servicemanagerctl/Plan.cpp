#include "Tools/servicemanagerctl/Plan.h"

#include <algorithm>
#include <utility>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/FeatureSwitches.h"
#include "ServiceManager/Catalogue/SwitchComparison.h"

using namespace platform;

namespace {

bool isSettingsDomain(std::string_view name) {
  return std::ranges::any_of(kGlobalSettingsDomains, [&](const GlobalSettingsDomain& domain) {
    return name == domain.prefix;
  });
}

SwitchOutcome outcomeOfSwitch(const PlannedSwitch& row) {
  if (!row.source || !isSettingsDomain(*row.source)) return SwitchOutcome::kNoSource;
  return outcomeOf(compareSwitch(row.expected, row.current));
}

std::vector<PlannedSwitch> switchesOf(const ServiceCatalogue& catalogue, const std::string& label,
                                      const Value& settings) {
  std::vector<PlannedSwitch> switches;
  const auto configurations = featureConfigurations(catalogue, label);
  if (!configurations) return switches;
  for (const FeatureConfiguration& configuration : *configurations) {
    for (const auto& [key, expected] : configuration.switches) {
      PlannedSwitch row{.feature = configuration.feature,
                        .source = configuration.source,
                        .key = key,
                        .expected = expected,
                        .current = {}};
      if (row.source) row.current = settings[*row.source][key];
      row.outcome = outcomeOfSwitch(row);
      switches.push_back(std::move(row));
    }
  }
  return switches;
}

PlannedService planned(const ServiceCatalogue& catalogue, const std::string& label,
                       const Value& settings, std::int64_t kernelMajorNumber) {
  PlannedService service{
      .label = label,
      .type = catalogue.serviceType(label),
      .minimumOSVersion = catalogue.service(label)[catalogue_keys::kMinimumOSVersion],
      .reason = {},
      .switches = switchesOf(catalogue, label, settings)};
  ServiceSituation situation{
      .isPrimary = label == catalogue.primaryLabel(),
      .type = service.type,
      .isPrimaryOfProduct = !catalogue.service(catalogue.primaryLabel()).isNil(),
      .support = osSupport(service.minimumOSVersion, kernelMajorNumber),
      .program =
          catalogue.jobInfo(label).isNil() ? std::nullopt : std::optional(ProgramState::kSound),
      .job = ServiceJobState::kAbsent,
      .areFeaturesMalformed = areFeaturesMalformed(catalogue, label)};
  for (const PlannedSwitch& row : service.switches) situation.switches.push_back(row.outcome);
  service.reason = reasonOf(situation);
  // Nothing speaks against it, so the next evaluation would start it. The reason for that is the
  // one of a service that runs.
  if (service.reason == kReasonNotStarted) {
    service.runs = true;
    situation.job = ServiceJobState::kRuns;
    service.reason = reasonOf(situation);
  }
  return service;
}

}  // namespace

std::vector<PlannedService> makePlan(const ServiceCatalogue& catalogue, const Value& settings,
                                     std::int64_t kernelMajorNumber) {
  std::vector<PlannedService> plan;
  if (!catalogue.services().dictionary()) return plan;
  for (const auto& [label, entry] : *catalogue.services().dictionary()) {
    plan.push_back(planned(catalogue, label, settings, kernelMajorNumber));
  }
  std::ranges::sort(plan, {}, &PlannedService::label);
  return plan;
}
