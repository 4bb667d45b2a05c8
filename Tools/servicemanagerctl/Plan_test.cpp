#include "Tools/servicemanagerctl/Plan.h"

#include <gtest/gtest.h>

#include "Tools/servicemanagerctl/PlanReport.h"

namespace {

using namespace platform;

Value entry(Dictionary more = {}) {
  more.set("JobSpec", Dictionary{{"Program", "x"}});
  return more;
}

Value plannedFeature(const char* source, Dictionary switches) {
  return Dictionary{
      {"Config", Array{Dictionary{{"Source", source}, {"Switches", std::move(switches)}}}}};
}

ServiceCatalogue catalogue() {
  return ServiceCatalogue(
      Dictionary{{"Primary", "primary"},
                 {"ProgramPath", "/p"},
                 {"Services", Dictionary{{"primary", entry({{"Features", Array{"Filter"}}})},
                                         {"core", entry()},
                                         {"filter", entry({{"Features", Array{"Filter"}}})},
                                         {"foreign", entry({{"Features", Array{"Foreign"}}})},
                                         {"new", entry({{"MinimumOSVersion", "10.11"}})},
                                         {"future", entry({{"MinimumOSVersion", "10.99"}})},
                                         {"jobless", Dictionary{{"Notification", "x"}}},
                                         {"malformed", entry({{"Features", "Filter"}})},
                                         {"switchless", entry({{"Features", Array()}})}}},
                 {"Features",
                  Dictionary{{"Filter", plannedFeature("common", {{"Enabled", 1}, {"Mode", "on"}})},
                             {"Foreign", plannedFeature("nowhere", {{"Enabled", 1}})}}}});
}

// "LABEL yes|no: why" of each service.
std::vector<std::string> linesOfPlan(const Value& settings, std::int64_t kernel) {
  std::vector<std::string> lines;
  for (const PlannedService& service : makePlan(catalogue(), settings, kernel))
    lines.push_back(service.label + (service.runs ? " yes: " : " no: ") + whyPlanned(service));
  return lines;
}

TEST(Plan, TheServiceManagersOwnDecisionsCount) {
  EXPECT_EQ(linesOfPlan({}, 14),
            (std::vector<std::string>{
                "core yes: a core service, which always runs",
                "filter no: common/Enabled is absent, not 1; common/Mode is absent, not \"on\"",
                "foreign no: nowhere/Enabled has no settings server",
                "future no: needs release 10.99", "jobless no: the catalogue gives it no job",
                "malformed no: its \"Features\" are no array", "new no: needs release 10.11",
                "primary yes: the primary service", "switchless no: its features have no switch"}));
}

TEST(Plan, ASettingStartsItsService) {
  const Value settings = Dictionary{{"common", Dictionary{{"Enabled", true}, {"Mode", 1}}},
                                    {"nowhere", Dictionary{{"Enabled", 1}}}};
  const auto lines = linesOfPlan(settings, 15);
  EXPECT_EQ(lines[1], "filter yes: common/Enabled is true");
  EXPECT_EQ(lines[2], "foreign no: nowhere/Enabled has no settings server");
  EXPECT_EQ(lines[6], "new yes: a core service, which always runs");
}

TEST(Plan, AValueOfAnotherKindDoesNotMatch) {
  const Value settings = Dictionary{{"common", Dictionary{{"Enabled", "1"}, {"Mode", "off"}}}};
  EXPECT_EQ(
      linesOfPlan(settings, 15)[1],
      "filter no: common/Enabled is \"1\", of another kind than 1; common/Mode is \"off\", not "
      "\"on\"");
}

TEST(Plan, WithoutThePrimaryServiceNothingRuns) {
  const ServiceCatalogue lacking(Dictionary{
      {"Primary", "primary"}, {"ProgramPath", "/p"}, {"Services", Dictionary{{"core", entry()}}}});
  const auto plan = makePlan(lacking, {}, 15);
  ASSERT_EQ(plan.size(), 1u);
  EXPECT_FALSE(plan[0].runs);
  EXPECT_EQ(plan[0].reason, kReasonPrimaryOtherProduct);
}

TEST(Plan, ADifferenceNamesWhatStartsAndStops) {
  std::vector<PlannedService> plan;
  const auto add = [&](const char* label, bool runs, std::string_view reason) {
    PlannedService service;
    service.label = label;
    service.runs = runs;
    service.reason = reason;
    plan.push_back(service);
  };
  add("new", true, kReasonCore);
  add("same", true, kReasonCore);
  add("stopped", false, kReasonNoSwitch);
  const auto changes =
      changesOf(plan, {{"gone", true}, {"idle", false}, {"same", true}, {"stopped", true}});
  EXPECT_EQ(asText(changes, Reader::kOther),
            "- gone: the catalogue has no such service of this product\n"
            "+ new: a core service, which always runs\n"
            "- stopped: its features have no switch\n");
  EXPECT_EQ(asText(std::vector<PlanChange>(), Reader::kOther),
            "The same services would run as now.\n");
}

TEST(Plan, IsATableOrJson) {
  PlannedService service;
  service.label = "core";
  service.type = kCoreService;
  service.runs = true;
  service.reason = kReasonCore;
  EXPECT_EQ(asTable({service}, Reader::kOther),
            "LABEL  TYPE     RUNS   WHY\n"
            "core   core     yes    a core service, which always runs\n");
  const auto json = asJson({service}, "p", 15);
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["services"][0]["runs"], true);
}

}  // namespace
