// The reports on many services at once.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "Platform/Jobs/JobHistory.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/OperatorReport.h"
#include "ServiceManager/ServiceManager/ReportedFacts.h"
#include "ServiceManager/Supervision/HealthRecord.h"

using namespace platform;

namespace {

// If the job host took this long and did not answer about one job, it is not asked about others.
constexpr Duration kSlowJobHostTime = std::chrono::milliseconds(200);
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

void dropLastEnds(Dictionary& facts) {
  const auto history = jobHistoryIn(facts[kFactJob]);
  if (!history) return;
  Dictionary job = *facts[kFactJob].dictionary();
  job.set(kJobHistoryKey, valueOfHistory(*history, JobHistoryDetail::kCounts));
  facts.set(kFactJob, std::move(job));
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
  Dictionary all;
  bool isHostAway = false;
  for (const Value& label : labels) {
    if (!label.string() || picture.catalogue->service(*label.string()).isNil()) continue;
    Dictionary facts;
    if (isHostAway) {
      facts.set(kFactJobIsUnknown, true);
    } else {
      const Instant start = environment_.runLoop.now();
      addJobFacts(facts, *label.string());
      isHostAway = facts.contains(kFactJobIsUnknown) &&
                   environment_.runLoop.now() - start >= kSlowJobHostTime;
    }
    if (labels.size() > kMostDetailedJobs) dropLastEnds(facts);
    all.set(*label.string(), std::move(facts));
  }
  return all;
}
