#include "Platform/Testing/Processes/FakeExitWatcher.h"

#include <cassert>
#include <optional>
#include <string>
#include <utility>

namespace platform {

struct FakeExitWatcher::Process {
  Parent parent = Parent::kSomebodyElse;
  bool ended = false;
  std::optional<ExitStatus> status;  // until the first caller gets it, if the program is the parent
  std::vector<std::weak_ptr<Watched>> watches;
};

struct FakeExitWatcher::Watched {
  std::shared_ptr<Process> process;  // Null if it had ended already.
  Callback onExit;
};

class FakeExitWatcher::Watch final : public RunLoopHandle {
 public:
  explicit Watch(std::shared_ptr<Watched> watched) : watched_(std::move(watched)) {}

 private:
  // Shared with a running report: the callback may destroy the watch.
  std::shared_ptr<Watched> watched_;
};

void FakeExitWatcher::startProcess(ProcessId process, Parent parent) {
  auto started = std::make_shared<Process>();
  started->parent = parent;
  [[maybe_unused]] const bool isNew = processes_.emplace(process, std::move(started)).second;
  assert(isNew);
}

void FakeExitWatcher::endProcess(ProcessId process, ExitStatus status) {
  const auto found = processes_.find(process);
  assert(found != processes_.end() && !found->second->ended);
  const std::shared_ptr<Process> ended = found->second;
  ended->ended = true;
  if (ended->parent == Parent::kProgram) {
    ended->status = status;
  } else {
    processes_.erase(found);
  }
  for (const auto& watch : ended->watches) {
    if (const auto watched = watch.lock()) report(watched);
  }
  ended->watches.clear();
}

void FakeExitWatcher::reap(ProcessId process) {
  const auto found = processes_.find(process);
  assert(found != processes_.end() && found->second->ended);
  found->second->status.reset();
  processes_.erase(found);
}

std::size_t FakeExitWatcher::watchCount() const {
  std::size_t count = 0;
  for (const auto& [number, process] : processes_) {
    for (const auto& watch : process->watches) count += watch.expired() ? 0 : 1;
  }
  return count;
}

Result<std::unique_ptr<RunLoopHandle>> FakeExitWatcher::watchExit(ProcessId process,
                                                                  Callback onExit) {
  const std::string what = "watching process " + std::to_string(process);
  if (process <= 0 || threads_.contains(process)) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, what});
  }
  const auto found = processes_.find(process);
  const bool isLimited = watchLimit_ != std::numeric_limits<std::size_t>::max();
  if (found != processes_.end() && isLimited && watchCount() >= watchLimit_) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, what});
  }
  auto watched = std::make_shared<Watched>();
  watched->onExit = std::move(onExit);
  if (found != processes_.end()) watched->process = found->second;
  if (!watched->process || watched->process->ended) {
    report(watched);
  } else {
    watched->process->watches.push_back(watched);
  }
  return std::make_unique<Watch>(std::move(watched));
}

void FakeExitWatcher::report(const std::shared_ptr<Watched>& watched) {
  loop_.post(
      [this, alive = std::weak_ptr(watched)] {
        const auto reported = alive.lock();
        if (!reported) return;
        std::optional<ExitStatus> status;
        if (reported->process) {
          status = std::exchange(reported->process->status, std::nullopt);
          std::erase_if(processes_,
                        [&](const auto& entry) { return entry.second == reported->process; });
        }
        Callback onExit = std::move(reported->onExit);  // It is destroyed after it has run.
        onExit(status);
      },
      Urgency::kProcessExit);
}

}  // namespace platform
