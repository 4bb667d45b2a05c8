// The jobs that the files of the daemons' folder define.

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/JobHost.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Result;

namespace {

// How often a host without a state file tries to write one, for the sake of the daemons.
constexpr platform::Duration kStateInterval = std::chrono::seconds(10);

constexpr std::string_view kSubmittedMeanwhile = "a client has submitted the job";

}  // namespace

void JobHost::forgetDismissals(const DaemonFolder& folder) {
  // Behind a fault the file may still be there; but no number of those makes this grow.
  if (!folder.faults.empty() && dismissed_.size() <= kMaximumDaemonFiles) return;
  Labels found;
  for (const JobDefinition& definition : folder.definitions) found.insert(definition.label);
  // A file that has gone and comes back is a new one.
  std::erase_if(dismissed_, [&](const std::string& label) { return !found.contains(label); });
}

std::string JobHost::daemonFolder() const { return options_.root + "/Library/LaunchDaemons"; }

void JobHost::skip(const JobDefinition& definition, std::string_view why) {
  log(platform::ASL_LEVEL_NOTICE, fmt::format("job {}: its file is not loaded: {}",
                                              platform::quotedInMessage(definition.label), why));
}

std::vector<JobDefinition> JobHost::refreshDaemons(DaemonFolder folder) {
  for (const std::string& fault : folder.faults) log(platform::ASL_LEVEL_ERR, fault);
  std::vector<JobDefinition> unknown;
  for (JobDefinition& definition : folder.definitions) {
    Job* const job = find(definition.label);
    if (dismissed_.contains(definition.label)) {
      skip(definition, "a client has removed the job, or put another in its place");
    } else if (!job || job->removal) {
      unknown.push_back(std::move(definition));
    } else if (job->origin == JobOrigin::kSubmitted) {
      skip(definition, kSubmittedMeanwhile);
    } else if (const auto refreshed = refresh(*job, definition); !refreshed) {
      log(platform::ASL_LEVEL_ERR, fmt::format("{}; the definition that it had stays",
                                               platform::describe(refreshed.error())));
    }
  }
  return unknown;
}

Result<void> JobHost::refresh(Job& job, const JobDefinition& definition) {
  if (job.dictionary == definition.dictionary) return {};
  if (auto known = checkAccount(definition); !known) return known;
  compactIfWanted();
  const std::size_t mark = state_->mark();
  const auto cost = record(&job, JobOrigin::kLoaded, definition);
  if (!cost) return std::unexpected(cost.error());
  const std::string service =
      definition.machServices.empty() ? std::string() : definition.machServices.front();
  if (service == job.machService) {
    // Its socket may have stayed with its process, whose it is until that ends.
    fillIn(job, JobOrigin::kLoaded, definition);
  } else if (auto defined = define(job, JobOrigin::kLoaded, definition); !defined) {
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
    return defined;
  }
  setCost(job, *cost);
  return {};
}

void JobHost::loadDaemons(std::vector<JobDefinition> definitions) {
  for (JobDefinition& definition : definitions) {
    if (isAskedToEnd()) return;
    Job* const job = find(definition.label);
    if (job && job->removal) {
      job->removal->afterwards.push_back(
          [this, definition = std::move(definition)]() mutable { load(std::move(definition)); });
    } else {
      load(std::move(definition));
    }
  }
}

void JobHost::loadDaemonsWhenWritable() {
  stateTimer_ = loop_.startTimer(kStateInterval, platform::RunLoop::Repeat::kEvery, [this] {
    compactIfWanted();
    if (!state_->isWritable()) return;
    const auto timer = std::move(stateTimer_);  // It lives until this has run.
    // Anew: it may have taken days, and both the files and the clients' jobs are others by now.
    loadDaemons(refreshDaemons(readDaemonFolder(daemonFolder())));
  });
}

void JobHost::load(JobDefinition definition) {
  // Who waited for the end of a job may come after a client who waited for it too.
  if (find(definition.label)) return skip(definition, kSubmittedMeanwhile);
  const auto loaded = submitNow(JobOrigin::kLoaded, std::move(definition));
  if (!loaded) log(platform::ASL_LEVEL_ERR, loaded.error().localizedDescription);
}

}  // namespace jobhost
