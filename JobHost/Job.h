#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "JobHost/RestartPolicy.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace jobhost {

// A job that is being removed, and who waits for that.
struct Removal {
  std::vector<std::move_only_function<void(std::expected<void, platform::NSError>)>> completions;
  // Requests for the same label that came meanwhile, in their order.
  std::vector<std::move_only_function<void()>> afterwards;
  std::optional<platform::Instant> killAt;  // none for never
  std::unique_ptr<platform::RunLoopHandle> killTimer;
  // The leader of the group ended under an earlier host, but not all of the group did.
  bool hasSurvivors = false;
};

// What the host keeps of a job. The rest of its definition is read anew from the dictionary at each
// start: of thousands of jobs most do nothing most of the time.
struct Job {
  std::string label;
  platform::Value dictionary;
  RestartRules rules;
  platform::Duration exitTimeOut{};
  std::string machService;  // empty for none
  JobOrigin origin = JobOrigin::kSubmitted;
  std::size_t cost = 0;  // counted against StateFile::kMaximumCost
  JobPhase phase = JobPhase::kIdle;
  // The last start whose record stands; its process is the leader of the job's group while
  // `hasLeader`.
  StartFields lastStart;
  bool hasLeader = false;
  // Also of a start that failed.
  std::optional<platform::Instant> lastTry;
  std::optional<Ending> lastEnd;
  std::unique_ptr<platform::RunLoopHandle> timer;  // the throttle's, or a look at a removed group
  std::unique_ptr<Removal> removal;
};

}  // namespace jobhost
