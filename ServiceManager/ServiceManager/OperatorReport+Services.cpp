// The reports on many services at once.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Jobs/Jobs.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/ReportedFacts.h"
#include "ServiceManager/Supervision/HealthRecord.h"

using namespace platform;

namespace {

// If the job host took this long and did not answer about one job, it is not asked about others.
constexpr Duration kSlowJobHostTime = std::chrono::milliseconds(200);
// The time for all trees of one answer. A job host that is slow must not delay each further client
// by its answer time for each job.
constexpr Duration kTreesTime = std::chrono::seconds(1);
// The answer about more jobs than this has only the counts of each history, and not the last ends,
// so that it stays within the limits of a message.
constexpr std::size_t kMostDetailedJobs = 200;

std::size_t serviceCount(const OperatorPicture& picture) {
  const Dictionary* services = picture.catalogue->services().dictionary();
  return services ? services->size() : 0;
}

std::span<const Dictionary::Entry> servicesOf(const OperatorPicture& picture,
                                              OperatorReport::Page page) {
  const std::size_t all = serviceCount(picture);
  const std::size_t first = std::min(page.first, all);
  if (first == all) return {};
  const Dictionary& services = *picture.catalogue->services().dictionary();
  return {services.begin() + static_cast<std::ptrdiff_t>(first), std::min(page.count, all - first)};
}

}  // namespace

Value OperatorReport::overview(const OperatorPicture& picture, Page page) const {
  Dictionary facts;
  addOperatingFacts(facts, picture);
  Dictionary all;
  for (const auto& [label, entry] : servicesOf(picture, page)) {
    Dictionary service;
    addMarksOfService(service, picture, label);
    setIfKnown(service, kFactMinimumOSVersion, entry["MinimumOSVersion"]);
    all.set(label, std::move(service));
  }
  facts.set(kFactServices, std::move(all));
  facts.set(kFactServiceCount, static_cast<std::int64_t>(serviceCount(picture)));
  facts.set(kFactIsTakingOver, picture.isTakingOver);
  if (page.first == 0) facts.set(kFactOtherServices, picture.catalogue->otherProductsServices());
  return facts;
}

Value OperatorReport::healthRecord(const OperatorPicture& picture, Page page) const {
  if (!picture.healthRecord.dictionary()) return {};
  Dictionary record = *picture.healthRecord.dictionary();
  Dictionary some;
  for (const auto& [label, entry] : servicesOf(picture, page)) {
    setIfKnown(some, label, picture.healthRecord[kHealthServices][label]);
  }
  record.set(kHealthServices, std::move(some));
  record.set(kFactServiceCount, static_cast<std::int64_t>(serviceCount(picture)));
  return record;
}

Value OperatorReport::entriesOfServices(const OperatorPicture& picture, const Array& labels) const {
  Dictionary entries;
  for (const Value& label : labels) {
    if (!label.string()) continue;
    setIfKnown(entries, *label.string(), picture.catalogue->service(*label.string()));
  }
  return entries;
}

Value OperatorReport::jobsOfServices(const OperatorPicture& picture, const Array& labels) const {
  const JobHistoryDetail detail = labels.size() > kMostDetailedJobs
                                      ? JobHistoryDetail::kCounts
                                      : JobHistoryDetail::kCountsAndEnds;
  Dictionary all;
  for (const Value& label : labels) {
    if (!label.string() || picture.catalogue->service(*label.string()).isNil()) continue;
    Dictionary facts;
    addJobFacts(facts, picture.jobs->find(*label.string()), detail);
    all.set(*label.string(), std::move(facts));
  }
  return all;
}

Value OperatorReport::treesOfServices(const OperatorPicture& picture, const Array& labels) const {
  Dictionary trees;
  const Instant due = environment_.runLoop.now() + kTreesTime;
  for (const Value& label : labels) {
    if (!label.string() || picture.catalogue->service(*label.string()).isNil()) continue;
    if (!picture.jobs->find(*label.string()).status.process) continue;
    const Instant start = environment_.runLoop.now();
    if (start >= due) break;
    const Value job =
        environment_.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, *label.string());
    setIfKnown(trees, *label.string(), job[kJobTreeKey]);
    if (isJobUnknown(job) && environment_.runLoop.now() - start >= kSlowJobHostTime) break;
  }
  return trees;
}
