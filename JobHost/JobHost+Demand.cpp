// The sockets of the jobs' services, and the jobs that start when a client connects.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "JobHost/Definitions/JobDefinitionLimits.h"
#include "JobHost/JobHost.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {

using platform::Descriptor;
using platform::Result;

namespace {

bool contains(const std::vector<std::string>& services, const std::string& service) {
  return std::ranges::find(services, service) != services.end();
}

// The number that the socket of the service at `place` has in a process.
Descriptor passedDescriptor(std::size_t place) {
  return kFirstPassedDescriptor + static_cast<Descriptor>(place);
}

}  // namespace

// Binds those that are not bound yet.
Result<std::vector<Descriptor>> JobHost::listenersOf(const Job& job) {
  std::vector<Descriptor> listeners;
  for (const std::string& service : job.machServices) {
    const auto listener = sockets_.listen(service, job.label());
    if (!listener) return std::unexpected(listener.error());
    listeners.push_back(*listener);
  }
  return listeners;
}

Result<void> JobHost::bindServices(const Job& job, const JobDefinition& definition) {
  const std::vector<std::string>& services = definition.machServices;
  for (auto service = services.begin(); service != services.end(); ++service) {
    const auto listener = sockets_.listen(*service, definition.label);
    if (listener) continue;
    for (auto bound = services.begin(); bound != service; ++bound) {
      if (!contains(job.machServices, *bound)) sockets_.close(*bound, definition.label);
    }
    return std::unexpected(listener.error());
  }
  return {};
}

// Returns the services whose sockets stay with the process. A process keeps the numbers that its
// sockets had at its start, and its definition may have other services by now.
std::vector<std::string> JobHost::takeOverServices(const Job& job,
                                                   const std::vector<std::string>& services) {
  std::vector<std::string> left;
  for (std::size_t place = 0; place < services.size(); ++place) {
    auto socket = job.process->copyDescriptor(passedDescriptor(place));
    if (!sockets_.takeOver(services[place], job.label(), std::move(socket))) {
      left.push_back(services[place]);
    }
  }
  for (std::size_t place = 0; place < kMaximumServices && !left.empty(); ++place) {
    std::erase_if(left, [&](const std::string& service) {
      auto socket = job.process->copyDescriptor(passedDescriptor(place));
      return sockets_.takeOver(service, job.label(), std::move(socket));
    });
  }
  return left;
}

void JobHost::closeServices(Job& job, const std::vector<std::string>& kept) {
  job.demand.clear();
  for (const std::string& service : job.machServices) {
    if (!contains(kept, service)) sockets_.close(service, job.label());
  }
}

// The names may be left over from an earlier host. Removes them, because the sockets behind them
// ended with the process. Keeps one that another job uses: clients still reach that job's socket by
// this name.
void JobHost::removeNamesOfServices(const Job& job) {
  for (const std::string& service : job.machServices) {
    const bool isUsedByAnotherJob = std::ranges::any_of(jobs_, [&](const auto& entry) {
      return entry.first != job.label() && contains(entry.second.machServices, service);
    });
    if (!isUsedByAnotherJob) sockets_.removeName(service);
  }
}

// The job has no process and wants none. Clients that connect wait in the backlog of its sockets.
void JobHost::awaitDemand(Job& job) {
  job.demand.clear();
  job.isDemanded = false;
  if (isShuttingDown_ || job.isDefinitionLost) return;
  for (const std::string& service : job.machServices) {
    // A process that was taken over may have had no socket that could be kept.
    const auto listener = sockets_.listen(service, job.label());
    if (!listener) {
      log(platform::ASL_LEVEL_ERR, platform::describe(listener.error()));
      continue;
    }
    auto watch = loop_.watchReadable(*listener, platform::Urgency::kOrdinary,
                                     [this, &job] { demanded(job); });
    if (watch) {
      job.demand.push_back(*std::move(watch));
    } else {
      log(platform::ASL_LEVEL_ERR,
          fmt::format("job {}: the service {} does not start it: {}",
                      platform::quotedInMessage(job.label()), platform::quotedInMessage(service),
                      platform::describe(watch.error())));
    }
  }
}

void JobHost::demanded(Job& job) {
  const auto watches = std::exchange(job.demand, {});  // The callback is part of one.
  if (isStopRequested()) return;
  job.isDemanded = true;
  const JobAction action =
      nextAction(job.phase, JobEvent::kDemanded, true, loop_.now() >= earliestStartOf(job));
  if (action == JobAction::kStart) return enqueueStart(job);
  static_cast<void>(perform(job, action, nullptr));  // Only a start can fail.
}

// The client may have gone while the throttle delayed the start.
bool JobHost::isStillWanted(const Job& job) const {
  return !job.isDemanded || std::ranges::any_of(job.machServices, [&](const auto& service) {
    return sockets_.hasClient(service, job.label());
  });
}

}  // namespace jobhost
