#include "Tools/servicemanagerctl/PlanReport.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

using Json = nlohmann::ordered_json;

std::string nameOfSetting(const PlannedSwitch& row) {
  return row.source ? plain(*row.source + "/" + row.key) : plain(row.key);
}

std::string aboutPlannedSwitch(const PlannedSwitch& row) {
  const std::string name = nameOfSetting(row);
  switch (row.outcome) {
    case SwitchOutcome::kMatches:
      return fmt::format("{} is {}", name, shown(row.current));
    case SwitchOutcome::kNoSource:
      return fmt::format("{} has no settings server", name);
    case SwitchOutcome::kAbsent:
      return fmt::format("{} is absent, not {}", name, shown(row.expected));
    case SwitchOutcome::kClashes:
      return fmt::format("{} is {}, of another kind than {}", name, shown(row.current),
                         shown(row.expected));
    case SwitchOutcome::kDiffers:
    case SwitchOutcome::kNoAnswer:
    case SwitchOutcome::kRefused:
    case SwitchOutcome::kNotAsked:
      break;
  }
  return fmt::format("{} is {}, not {}", name, shown(row.current), shown(row.expected));
}

std::string aboutSwitches(const PlannedService& service, bool onlyMatching) {
  std::vector<std::string> texts;
  for (const PlannedSwitch& row : service.switches) {
    if (!onlyMatching || row.outcome == SwitchOutcome::kMatches)
      texts.push_back(aboutPlannedSwitch(row));
  }
  return fmt::format("{}", fmt::join(texts, "; "));
}

std::string aboutRelease(const PlannedService& service) {
  return service.minimumOSVersion.string()
             ? fmt::format("needs release {}", plain(*service.minimumOSVersion.string()))
             : fmt::format("its \"MinimumOSVersion\" is {}", shown(service.minimumOSVersion));
}

Json switchJson(const PlannedSwitch& row) {
  Json json{{"feature", row.feature}, {"source", nullptr}, {"key", row.key}};
  if (row.source) json["source"] = *row.source;
  json["expected"] = jsonOf(row.expected);
  json["current"] = jsonOf(row.current);
  json["matches"] = row.outcome == SwitchOutcome::kMatches;
  return json;
}

}  // namespace

std::string whyPlanned(const PlannedService& service) {
  const std::string_view reason = service.reason;
  if (reason == kReasonPrimary) return "the primary service";
  if (reason == kReasonCore) return "a core service, which always runs";
  if (reason == kReasonSwitch) return aboutSwitches(service, true);
  if (reason == kReasonNoMatch) return aboutSwitches(service, false);
  if (reason == kReasonUnsupported) return aboutRelease(service);
  if (reason == kReasonNoJob) return "the catalogue gives it no job";
  if (reason == kReasonPrimaryOtherProduct) return "the product lacks the primary service";
  if (reason == kReasonMalformedFeatures) return "its \"Features\" are no array";
  if (reason == kReasonNoSwitch) return "its features have no switch";
  return std::string(reason);
}

std::string asTable(const std::vector<PlannedService>& plan, Reader reader) {
  constexpr std::string_view kLabelHeading = "LABEL";
  std::size_t width = kLabelHeading.size();
  for (const PlannedService& service : plan) width = std::max(width, plain(service.label).size());
  std::string text =
      coloured(fmt::format("{:<{}}  {:<7}  {:<5}  {}", kLabelHeading, width, "TYPE", "RUNS", "WHY"),
               Colour::kBold, reader) +
      "\n";
  for (const PlannedService& service : plan) {
    const std::string runs = fmt::format("{:<5}", service.runs ? "yes" : "no");
    fmt::format_to(std::back_inserter(text), "{:<{}}  {:<7}  {}  {}\n", plain(service.label), width,
                   service.type == kFeatureService ? "feature" : "core",
                   service.runs ? coloured(runs, Colour::kGreen, reader) : runs,
                   whyPlanned(service));
  }
  return text;
}

Json asJson(const std::vector<PlannedService>& plan, std::string_view product,
            std::int64_t kernelMajorNumber) {
  Json services = Json::array();
  for (const PlannedService& service : plan) {
    Json switches = Json::array();
    for (const PlannedSwitch& row : service.switches) switches.push_back(switchJson(row));
    services.push_back({{"label", service.label},
                        {"type", service.type == kFeatureService ? "feature" : "core"},
                        {"runs", service.runs},
                        {"reason", service.reason},
                        {"why", whyPlanned(service)},
                        {"switches", std::move(switches)}});
  }
  return {{"version", 1},
          {"product", product},
          {"kernel", kernelMajorNumber},
          {"services", std::move(services)}};
}

std::vector<PlanChange> changesOf(const std::vector<PlannedService>& plan,
                                  const std::map<std::string, bool>& running) {
  std::vector<PlanChange> changes;
  std::map<std::string, bool> leftOut = running;
  for (const PlannedService& service : plan) {
    const auto now = running.find(service.label);
    const bool runs = now != running.end() && now->second;
    leftOut.erase(service.label);
    if (runs == service.runs) continue;
    changes.push_back({service.runs ? PlanChange::Kind::kStarts : PlanChange::Kind::kStops,
                       service.label, whyPlanned(service)});
  }
  for (const auto& [label, runs] : leftOut) {
    if (runs)
      changes.push_back(
          {PlanChange::Kind::kStops, label, "the catalogue has no such service of this product"});
  }
  std::ranges::sort(changes, {}, &PlanChange::label);
  return changes;
}

std::string asText(const std::vector<PlanChange>& changes, Reader reader) {
  if (changes.empty()) return "The same services would run as now.\n";
  std::string text;
  for (const PlanChange& change : changes) {
    const bool starts = change.kind == PlanChange::Kind::kStarts;
    const std::string label = fmt::format("{} {}", starts ? "+" : "-", plain(change.label));
    fmt::format_to(std::back_inserter(text), "{}: {}\n",
                   coloured(label, starts ? Colour::kGreen : Colour::kRed, reader), change.why);
  }
  return text;
}

Json asJson(const std::vector<PlanChange>& changes) {
  Json json = Json::array();
  for (const PlanChange& change : changes) {
    json.push_back({{"label", change.label},
                    {"change", change.kind == PlanChange::Kind::kStarts ? "starts" : "stops"},
                    {"why", change.why}});
  }
  return json;
}
