#include "ServiceManager/Supervision/KnownJobs.h"

#include <algorithm>
#include <utility>
#include <vector>

using namespace platform;

namespace {

KnownJob knownJobIn(const Value& copy) {
  return {.status = jobStatusIn(copy),
          .isLastExitStatusUnknown = copy[kJobLastStatusUnknownKey] == Value(true),
          .hasProgramChanged = copy[kJobProgramChangedKey] == Value(true),
          .history = jobHistoryIn(copy)};
}

// A page of states has no last ends. Those that are known are still the last ones if the job has
// not ended again.
void keepLastEnds(KnownJob& job, const KnownJob& before) {
  if (!job.history || !before.history) return;
  if (job.history->since != before.history->since) return;
  if (job.history->ends == before.history->ends) job.history->lastEnds = before.history->lastEnds;
}

}  // namespace

bool KnownJob::operator==(const KnownJob& other) const {
  return status.presence == other.status.presence && status.process == other.status.process &&
         status.lastExitStatus == other.status.lastExitStatus &&
         isLastExitStatusUnknown == other.isLastExitStatusUnknown &&
         hasProgramChanged == other.hasProgramChanged && history == other.history;
}

KnownJob KnownJobTable::find(std::string_view label) const {
  using Presence = JobStatus::Presence;
  const auto found = jobs.find(label);
  if (found != jobs.end()) return found->second;
  return {.status = {.presence = isComplete ? Presence::kAbsent : Presence::kUnknown,
                     .process = {},
                     .lastExitStatus = {}}};
}

bool KnownJobs::update(std::string_view label, const Value& copy) {
  return !isJobUnknown(copy) && set(label, knownJobIn(copy));
}

bool KnownJobs::updatePage(std::string_view after, const Dictionary& states) {
  bool hasChanged = false;
  std::string last;  // empty after the last page
  for (const auto& [label, state] : states) {
    KnownJob job = knownJobIn(state);
    keepLastEnds(job, table_->find(label));
    if (set(label, std::move(job))) hasChanged = true;
    last = std::max(last, label);
  }
  std::vector<std::string> absent;
  for (auto job = table_->jobs.upper_bound(after); job != table_->jobs.end(); ++job) {
    if (!last.empty() && job->first > last) break;
    if (!states.contains(job->first)) absent.push_back(job->first);
  }
  for (const std::string& label : absent) {
    if (set(label, {})) hasChanged = true;
  }
  if (!last.empty()) return hasChanged;
  if (!table_->isComplete) {
    table_.change().isComplete = true;
    hasChanged = true;
  }
  forgetAbsentJobs();
  return hasChanged;
}

// In a complete table a job without an entry is absent, too. The host has jobs of others, which
// come and go.
void KnownJobs::forgetAbsentJobs() {
  const auto isAbsent = [](const auto& job) { return job.second == KnownJob(); };
  if (std::ranges::any_of(table_->jobs, isAbsent)) std::erase_if(table_.change().jobs, isAbsent);
}

bool KnownJobs::processEnded(std::string_view label, ProcessId process) {
  KnownJob job = table_->find(label);
  if (job.status.process != process) return false;
  job.status.process.reset();
  job.status.lastExitStatus = {};
  job.isLastExitStatusUnknown = true;
  return set(label, std::move(job));
}

bool KnownJobs::set(std::string_view label, KnownJob job) {
  const auto found = table_->jobs.find(label);
  if (found != table_->jobs.end() && found->second == job) return false;
  table_.change().jobs.insert_or_assign(std::string(label), std::move(job));
  return true;
}
