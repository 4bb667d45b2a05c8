#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "JobHost/Processes/Processes.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Processes/RestartPolicy.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace jobhost {

// The time that a process which another user may have started gets to end after its SIGKILL. Then
// the removal ends without it.
inline constexpr platform::Duration kStrangersKillTime = std::chrono::seconds(1);

// A job that is being removed, and the requests that wait for it.
struct Removal {
  std::vector<std::move_only_function<void(std::expected<void, platform::NSError>)>> completions;
  // Requests for the same label that came during the removal, in their order.
  std::vector<std::move_only_function<void()>> afterwards;
  std::optional<platform::Instant> killAt;  // empty for never
  // Processes with the job's mark or in its control group, as far as the searches have found them.
  // By their numbers. Those that have ended are dropped before each search.
  std::map<platform::ProcessId, std::unique_ptr<MarkedProcess>> descendants;
  // The same for processes with a mark that another user may have forged. The removal waits for
  // them only until this time.
  std::map<platform::ProcessId, std::unique_ptr<MarkedProcess>> strangers;
  platform::Instant strangersUntil;
  std::uint64_t beganAt = 0;         // in the unit of StartFields::startTicks
  platform::Duration searchPause{};  // from the last search to the next one
  // When its group got SIGTERM, in the unit of StartFields::startTicks. A process that began in the
  // group since then may not have got it. 0 if there was no SIGTERM.
  std::uint64_t signalledAt = 0;
  bool awaitsAdoption = false;  // as Job::awaitsAdoption() when the removal began
  bool isSearching = false;     // its leader and its group have ended, and the next search decides
  bool isKilling = false;       // the time-out is over
  std::unique_ptr<platform::RunLoopHandle> killTimer;  // then the one for a process that stays
};

// The part of a job that the host keeps in memory. The rest of the definition is parsed again from
// the dictionary at each start, because most of thousands of jobs do nothing most of the time.
struct Job {
  const std::string* key = nullptr;  // of its entry in JobHost's map, which does not move
  platform::Value dictionary;
  platform::RestartRules rules;
  platform::Duration exitTimeOut{};
  std::vector<std::string> machServices;
  // While it waits for a client: each of its services' sockets is watched.
  std::vector<std::unique_ptr<platform::RunLoopHandle>> demand;
  bool isDemanded = false;  // a client is the only reason for its next start
  JobOrigin origin = JobOrigin::kSubmitted;
  bool hasProgramChanged = false;  // since it was verified, so it waits for a submission
  bool isDefinitionLost = false;   // only its process is known; it is forgotten when that ends
  std::size_t cost = 0;            // counted against StateFile::kMaximumCost
  platform::JobPhase phase = platform::JobPhase::kIdle;
  // The last start that is in the state file.
  StartFields lastStart;
  // Its process, which leads the group while `hasLeader`. Null if nothing is left of it.
  std::unique_ptr<JobProcess> process;
  bool hasLeader = false;
  platform::RecentStarts starts;
  std::optional<Ending> lastEnd;
  unsigned shortCrashes = 0;  // in a row, each within kCrashLoopRun
  bool isQueued = false;      // waits only for its turn in JobHost's queue of starts
  std::unique_ptr<platform::RunLoopHandle> timer;  // the throttle's, or polls a removed group
  std::unique_ptr<Removal> removal;

  const std::string& label() const { return *key; }
  // Only its leader is signalled, and the rest is left alone. The definition that its process was
  // started with decides, not one that came later.
  bool abandonsGroup() const { return lastStart.abandonsGroup != 0; }
  // Its process may live, but there was no descriptor to watch it.
  bool awaitsAdoption() const { return phase == platform::JobPhase::kRunning && !hasLeader; }
};

}  // namespace jobhost
