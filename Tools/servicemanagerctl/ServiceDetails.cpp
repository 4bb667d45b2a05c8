#include "Tools/servicemanagerctl/ServiceDetails.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/BusyReport.h"
#include "Tools/servicemanagerctl/Explanation.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/ServiceWhy.h"
#include "Tools/servicemanagerctl/TimeWords.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;
using Json = nlohmann::ordered_json;

namespace {

std::string factText(const Value& fact) { return fact.string() ? plain(*fact.string()) : ""; }

// Only a job that has ended, and is to run, is started again.
std::optional<WallTime> dueStart(const Value& facts, const JobState& job) {
  if (facts[kFactReason] != Value(kReasonEnded)) return std::nullopt;
  return nextStart(job, facts[kFactThrottle]);
}

std::string startInWords(WallTime start, WallTime now) {
  if (start <= now) return "now";
  return fmt::format("in {} s, {}", std::chrono::ceil<std::chrono::seconds>(start - now).count(),
                     timeAsText(std::chrono::floor<std::chrono::seconds>(start)));
}

std::string processInWords(const Value& facts, const JobState& job, std::optional<WallTime> started,
                           WallTime now) {
  if (facts[kFactJobIsUnknown] == Value(true)) return "not known";
  if (!job.process) return "none";
  if (!started) return fmt::format("{}", *job.process);
  return fmt::format("{}, since {} ({})", *job.process, ageInWords(now - *started),
                     timeAsText(std::chrono::floor<std::chrono::seconds>(*started)));
}

std::string useInWords(const JobTree& tree) {
  std::string text = asText(tree);
  while (!text.empty() && (text.back() == '\n' || text.back() == '.')) text.pop_back();
  return text;
}

}  // namespace

std::string detailsAsText(const Value& facts, std::optional<WallTime> started, WallTime now,
                          Reader reader) {
  const Explanation explanation = explain(facts);
  const JobState job = jobState(factText(facts[kFactLabel]), facts[kFactJob]);
  std::string text =
      coloured(explanation.verdict, explanation.runs ? Colour::kGreen : Colour::kBold, reader) +
      "\n\n";
  std::vector<std::pair<std::string, std::string>> rows;
  const auto add = [&rows](std::string heading, std::string sentence) {
    if (!sentence.empty()) rows.emplace_back(std::move(heading), std::move(sentence));
  };
  add("type", facts[kFactType] == Value(kFeatureService) ? "feature service" : "core service");
  add("program", factText(facts[kFactProgram]));
  add("signed as", factText(facts[kFactProgramIdentifier]));
  add("fault", factText(facts[kFactProgramFault]));
  add("process", processInWords(facts, job, started, now));
  if (job.tree) add("uses", useInWords(*job.tree));
  if (const auto start = dueStart(facts, job)) add("next start", startInWords(*start, now));
  add("now", workOnService(facts));
  for (const auto& [heading, sentence] : rows)
    text += fmt::format("  {:<10}  {}\n", heading, sentence);
  if (job.history) text += "\n" + asText(*job.history);
  return text;
}

Json detailsAsJson(const Value& facts, std::optional<WallTime> started, WallTime now) {
  const Explanation explanation = explain(facts);
  const std::string* label = facts[kFactLabel].string();
  const JobState job = jobState(label ? *label : "", facts[kFactJob]);
  Json json = asJson(job);
  json["runs"] = explanation.runs;
  json["reason"] = explanation.reason;
  json["verdict"] = explanation.verdict;
  for (const auto& [key, fact] : {std::pair("type", kFactType), std::pair("program", kFactProgram),
                                  std::pair("programIdentifier", kFactProgramIdentifier),
                                  std::pair("programFault", kFactProgramFault)}) {
    json[key] = jsonOf(facts[fact]);
  }
  json["since"] = started ? Json(timeAsText(*started)) : Json();
  if (job.history) json["history"] = asJson(*job.history);
  if (job.tree) json["tree"] = asJson(*job.tree);
  const auto start = dueStart(facts, job);
  json["nextStart"] = start ? Json(timeAsText(*start)) : Json();
  json["nextStartInSeconds"] =
      start ? Json(std::max(0.0, std::chrono::duration<double>(*start - now).count())) : Json();
  return json;
}
