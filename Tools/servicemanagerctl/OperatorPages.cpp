#include "Tools/servicemanagerctl/OperatorPages.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include <fmt/format.h>

#include "Platform/Jobs/Jobs.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

// An entry of the catalogue may have a hundred values.
constexpr std::size_t kEntriesInAPage = 100;
// The answer about more jobs has no last ends.
constexpr std::size_t kDetailedJobsInAPage = 200;

void add(Dictionary& all, const Value& some) {
  if (!some.dictionary()) return;
  for (const auto& [label, facts] : *some.dictionary()) all.set(label, facts);
}

Refusal refusalFor(const std::string& idleReason) {
  return {kExitNobodyThere,
          fmt::format("the service manager is idle: {}; repair that and end its process, and the "
                      "job host starts it again",
                      plain(idleReason))};
}

Answer<Value> askAboutLabels(DaemonClient& daemon, std::string_view selector,
                             const std::vector<std::string>& labels, std::size_t pageSize) {
  Dictionary all;
  for (std::size_t first = 0; first < labels.size(); first += pageSize) {
    const auto begin = labels.begin() + static_cast<std::ptrdiff_t>(first);
    const auto count = static_cast<std::ptrdiff_t>(std::min(pageSize, labels.size() - first));
    const auto page = daemon.ask(selector, {Array(begin, begin + count)});
    if (!page) return page;
    add(all, *page);
  }
  return Value(std::move(all));
}

}  // namespace

Answer<Value> askAboutAllServices(DaemonClient& daemon, std::string_view selector) {
  Dictionary answer;
  Dictionary services;
  for (std::int64_t first = 0, count = 1; first < count; first += kServicesInAPage) {
    const auto page = askForPage(daemon, selector, first);
    if (!page || !page->dictionary()) return page;
    if (first == 0) answer = *page->dictionary();
    add(services, (*page)[kFactServices]);
    count = (*page)[kFactServiceCount].integer().value_or(0);
  }
  answer.set(kFactServices, std::move(services));
  return Value(std::move(answer));
}

Answer<Value> askForPage(DaemonClient& daemon, std::string_view selector, std::int64_t first) {
  auto page = daemon.ask(selector, {first});
  if (!page) return page;
  if (const std::string* reason = (*page)[kFactIdleReason].string())
    return std::unexpected(refusalFor(*reason));
  return page;
}

Refusal orOfIdle(const Refusal& refusal, const DaemonClient::Environment& environment) {
  if (refusal.exitStatus != kExitNobodyThere && refusal.exitStatus != kExitUnknownLabel)
    return refusal;
  DaemonClient daemon(environment, kOperatorServer, kORBServiceManagerOperatorProtocol);
  if (!daemon.connect()) return refusal;
  const auto page = daemon.ask("overviewFrom:", {0});
  const std::string* const reason = page ? (*page)[kFactIdleReason].string() : nullptr;
  return reason ? refusalFor(*reason) : refusal;
}

Answer<Value> askForJobs(DaemonClient& daemon, const std::vector<std::string>& labels) {
  return askAboutLabels(daemon, "jobsOfServices:", labels, kServicesInAPage);
}

Value withTrees(DaemonClient& daemon, const std::vector<std::string>& labels, const Value& jobs) {
  const auto trees = askAboutLabels(daemon, "treesOfServices:", labels, kServicesInAPage);
  if (!trees || !trees->dictionary() || !jobs.dictionary()) return jobs;
  Dictionary all = *jobs.dictionary();
  for (const auto& [label, tree] : *trees->dictionary()) {
    const Value& facts = jobs[label];
    if (!facts[kFactJob].dictionary()) continue;
    Dictionary job = *facts[kFactJob].dictionary();
    job.set(kJobTreeKey, tree);
    Dictionary more = *facts.dictionary();
    more.set(kFactJob, std::move(job));
    all.set(label, std::move(more));
  }
  return all;
}

Answer<Value> askForEntries(DaemonClient& daemon, const std::vector<std::string>& labels) {
  return askAboutLabels(daemon, "entriesOfServices:", labels, kEntriesInAPage);
}

Answer<Value> askForJobsWithEnds(DaemonClient& daemon, const std::vector<std::string>& labels) {
  return askAboutLabels(daemon, "jobsOfServices:", labels, kDetailedJobsInAPage);
}

Answer<Value> askForReasons(DaemonClient& daemon, const std::vector<std::string>& labels) {
  return askAboutLabels(daemon, "reasonsOfServices:", labels, kEntriesInAPage);
}
