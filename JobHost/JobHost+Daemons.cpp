// The jobs that the files in the folder LaunchDaemons of the library define.

#include <csignal>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/JobHost.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/SystemFacts/LibraryPath.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Result;

namespace {

constexpr std::string_view kSubmittedMeanwhile = "a client has submitted the job";

}  // namespace

void JobHost::forgetMissingFiles(const DaemonFolder& folder) {
  // A file with a fault may still be there, so its label is kept. The limit bounds the labels
  // nonetheless.
  if (!folder.faults.empty() && removedByClient_.size() <= kMaximumDaemonFiles) return;
  Labels found;
  for (const JobDefinition& definition : folder.definitions) found.insert(definition.label);
  // If a file was deleted, it counts as new when it comes back.
  std::erase_if(removedByClient_, [&](const std::string& label) { return !found.contains(label); });
}

std::string JobHost::daemonFolder() const {
  return platform::libraryPath(options_.root, "LaunchDaemons");
}

void JobHost::skip(const JobDefinition& definition, std::string_view why) {
  log(platform::ASL_LEVEL_NOTICE, fmt::format("job {}: its file is not loaded: {}",
                                              platform::quotedInMessage(definition.label), why));
}

std::vector<JobDefinition> JobHost::refreshDaemons(DaemonFolder folder) {
  for (const std::string& fault : folder.faults) log(platform::ASL_LEVEL_ERR, fault);
  std::vector<JobDefinition> unknown;
  for (JobDefinition& definition : folder.definitions) {
    Job* const job = find(definition.label);
    if (removedByClient_.contains(definition.label)) {
      skip(definition, "a client has removed the job, or put another in its place");
    } else if (!job || job->removal) {
      unknown.push_back(std::move(definition));
    } else if (job->origin == JobOrigin::kSubmitted && !job->isDefinitionLost) {
      skip(definition, kSubmittedMeanwhile);
    } else if (const auto refreshed = refresh(*job, definition); !refreshed) {
      log(platform::ASL_LEVEL_ERR,
          fmt::format("{}: {}; the definition that it had stays", definition.file,
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
  if (definition.machServices == job.machServices) {
    // Don't bind the sockets: they may still belong to a process that was taken over.
    fillIn(job, JobOrigin::kLoaded, definition);
  } else if (auto defined = define(job, JobOrigin::kLoaded, definition); !defined) {
    if (auto cut = state_->cutBackTo(mark); !cut) {
      log(platform::ASL_LEVEL_ERR, platform::describe(cut.error()));
    }
    return defined;
  }
  if (job.phase == JobPhase::kIdle) awaitDemand(job);
  setCost(job, *cost);
  return {};
}

void JobHost::loadDaemons(std::vector<JobDefinition> definitions) {
  for (JobDefinition& definition : definitions) {
    if (isStopRequested()) return;
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
  stateTimer_ = loop_.startTimer(kStateRetryInterval, platform::RunLoop::Repeat::kEvery, [this] {
    compactIfWanted();
    if (!state_->isWritable()) return;
    const auto timer = std::move(stateTimer_);  // The callback is part of it.
    // Read the folder again: the disk may have been full for days, and the files and the clients'
    // jobs have changed.
    loadDaemons(refreshDaemons(readDaemonFolder(daemonFolder())));
  });
}

void JobHost::load(JobDefinition definition) {
  // If the file waited for a removal to finish, a client may have waited too, and have come first.
  if (find(definition.label)) return skip(definition, kSubmittedMeanwhile);
  const std::string file = definition.file;
  const std::string label = definition.label;
  const auto loaded = submitNow(JobOrigin::kLoaded, std::move(definition));
  if (loaded) return;
  log(platform::ASL_LEVEL_ERR, fmt::format("{}: {}", file, loaded.error().localizedDescription),
      {.messageId = platform::kStartFailedId, .label = label});
}

void JobHost::restartOutdatedBus() {
  if (!options_.isBusOutdated) return;
  Job* const job = find(kNotificationBusLabel);
  if (job && job->awaitsAdoption()) return;
  if (job && job->hasLeader && !job->removal) {
    log(platform::ASL_LEVEL_NOTICE,
        fmt::format("job {}: process {} is restarted, because other users may use the bus now",
                    platform::quotedInMessage(kNotificationBusLabel), job->lastStart.process));
    signalGroup(*job, SIGTERM);
  }
  if (options_.onBusRestarted) options_.onBusRestarted();
}

}  // namespace jobhost
