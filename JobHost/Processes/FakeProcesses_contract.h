#pragma once

#include <algorithm>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "JobHost/Processes/Processes.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace jobhost {

// Processes that exist only in a test. They write their start records as real ones do, live until
// the test or a signal ends them, and go on when the host that started them is destroyed.
class FakeProcesses final : public Processes {
 public:
  struct Started {
    platform::ProcessId process = 0;
    std::string label;
    std::string program;
    std::vector<platform::Descriptor> listeners;
    platform::Instant at;
  };
  struct Signalled {
    platform::ProcessId group = 0;
    int signal = 0;
    platform::Instant at;

    bool operator==(const Signalled&) const = default;
  };

  explicit FakeProcesses(platform::VirtualRunLoop& loop) : loop_(loop) {}

  platform::Result<std::unique_ptr<JobProcess>> start(
      const JobDefinition& job, const StartTicket& ticket,
      std::span<const platform::Descriptor> listeners, OnEnd onEnd) override {
    ++attempts;
    if (failure && !recordsFailures) return std::unexpected(*failure);
    const platform::ProcessId process = next_++;
    completeStartRecord(ticket.record.data(), process, ticksOf(process), inodeOf(process));
    const ssize_t written =
        ticket.file < 0 ? 0 : ::write(ticket.file, ticket.record.data(), ticket.record.size());
    const bool isPartial = written >= 0 && written < static_cast<ssize_t>(ticket.record.size());
    if (ticket.writeError) *ticket.writeError = written < 0 ? errno : 0;
    if (ticket.writeError && ticket.file >= 0 && isPartial) *ticket.writeError = ENOSPC;
    if (failure) return std::unexpected(*failure);
    Process& state = processes_[process];
    state.onEnd = std::make_shared<OnEnd>(std::move(onEnd));
    for (const platform::Descriptor listener : listeners) {
      state.listeners.emplace_back(::fcntl(listener, F_DUPFD_CLOEXEC, 0));
    }
    std::int64_t startedAt = 0;
    std::memcpy(&startedAt,
                ticket.record.data() + sizeof(RecordHeader) + offsetof(StartFields, startedAt),
                sizeof startedAt);
    marked_[process] = {job.label, process, startedAt, job.abandonsProcessGroup};
    started.push_back(
        {process, job.label, job.program, {listeners.begin(), listeners.end()}, loop_.now()});
    StartFields identity;
    std::memcpy(&identity, ticket.record.data() + sizeof(RecordHeader), sizeof identity);
    return std::make_unique<Handle>(*this, identity);
  }

  platform::Result<std::unique_ptr<JobProcess>> takeOver(const StartFields& identity,
                                                         OnEnd onEnd) override {
    if (takeOverFailure) return std::unexpected(*takeOverFailure);
    const auto found = processes_.find(identity.process);
    if (found == processes_.end() || found->second.ended ||
        identity.startTicks != ticksOf(identity.process) ||
        identity.pidfdInode != inodeOf(identity.process)) {
      return std::unexpected(platform::Error{platform::ErrorCode::kNotFound, 0, "gone"});
    }
    found->second.onEnd = std::make_shared<OnEnd>(std::move(onEnd));
    found->second.isChild = false;
    return std::make_unique<Handle>(*this, identity);
  }

  std::unique_ptr<JobProcess> remainsOf(const StartFields& identity) override {
    if (!hasRemainingProcesses(identity)) return nullptr;
    return std::make_unique<Handle>(*this, identity);
  }

  platform::Result<std::vector<std::unique_ptr<MarkedProcess>>> findMarked(
      const Wanted& isWanted) override {
    ++searches;
    if (searchFailure) return std::unexpected(*searchFailure);
    std::vector<std::unique_ptr<MarkedProcess>> found;
    for (const auto& [process, marked] : marked_) {
      if (hidesMarks || !isAlive(process) || reused_.contains(process)) continue;
      if (marked.isAbandoned && marked.leader != process) continue;
      const auto group = marked.group == 0 ? process : marked.group;
      const Marked facts{marked.label,  process,          group,
                         marked.leader, ticksOf(process), marked.user};
      if (isWanted(facts)) found.push_back(std::make_unique<MarkedHandle>(*this, process));
    }
    return found;
  }

  std::uint64_t ticksNow() const override { return ticksOf(next_); }

  bool haveControlGroups() const override { return hasControlGroups; }
  // The kill of a tree leaves them alone in any case.
  void abandon(const std::string& label) override { abandoned.push_back(label); }
  void discard(const std::string& label) override {
    if (hasControlGroups) killTree(label);
    discarded.push_back(label);
  }
  void discardOthers(const std::vector<std::string>& labels) override {
    std::set<std::string> others;
    for (const auto& [process, marked] : marked_) others.insert(marked.label);
    for (const std::string& label : labels) others.erase(label);
    for (const std::string& label : others) discard(label);
  }

  // Starts a process with the mark of this leader and a session of its own, or in this group.
  platform::ProcessId addDescendant(platform::ProcessId leader, platform::ProcessId group = 0) {
    const platform::ProcessId process = next_++;
    processes_[process].isChild = false;
    marked_[process] = marked_.at(leader);
    marked_[process].group = group;
    return process;
  }

  // Starts a process of another user, with the mark of a leader or of a descendant of `leader`.
  platform::ProcessId forge(const std::string& label, platform::UserId user,
                            platform::ProcessId leader = 0) {
    const platform::ProcessId process = next_++;
    processes_[process].isChild = false;
    marked_[process] = {.label = label, .leader = leader == 0 ? process : leader, .user = user};
    return process;
  }

  // Whether a process other than the leader lives in the group.
  bool hasMembers(platform::ProcessId group) const { return members_.contains(group); }

  bool isAlive(platform::ProcessId process) const {
    const auto found = processes_.find(process);
    return found != processes_.end() && !found->second.ended;
  }

  // Ends the process and reports it to the host as soon as the loop runs.
  void end(platform::ProcessId process, ProcessEnd status = {}) {
    endUnreported(process, status);
    Process& ended = processes_.at(process);
    loop_.post(
        [this, process, alive = std::weak_ptr(ended.onEnd)] {
          if (!alive.expired()) report(process);
        },
        platform::Urgency::kProcessExit);
  }

  // Ends the process without a report: the host learns it only if it asks.
  void endUnreported(platform::ProcessId process, ProcessEnd status = {}) {
    Process& ended = processes_.at(process);
    ended.ended = true;
    ended.status = status;
  }

  // A copy of a descriptor that was passed to the process.
  platform::UniqueFd copyDescriptor(platform::ProcessId process, platform::Descriptor descriptor) {
    const auto found = processes_.find(process);
    if (found == processes_.end()) return {};
    const auto& listeners = found->second.listeners;
    const auto place = static_cast<std::size_t>(descriptor - kFirstPassedDescriptor);
    if (place >= listeners.size()) return {};
    return platform::UniqueFd(::fcntl(listeners[place].get(), F_DUPFD_CLOEXEC, 0));
  }

  // Adds a process to the group, which outlives its leader.
  void addMember(platform::ProcessId group) { members_.insert(group); }
  void endMembers(platform::ProcessId group) { members_.erase(group); }

  // Drops the watches, as the kill of a host does: no end is reported any more.
  void dropWatches() {
    for (auto& [process, state] : processes_) state.onEnd.reset();
  }

  // Gives another process the number of one that has ended.
  void reuse(platform::ProcessId process) { reused_.insert(process); }

  std::vector<Started> started;
  std::vector<Signalled> signals;
  std::vector<std::string> discarded;
  std::vector<std::string> abandoned;
  int attempts = 0;
  // Makes starts fail, with the record in the file or without.
  std::optional<platform::Error> failure;
  bool recordsFailures = false;
  bool obeysTermination = true;
  bool obeysKill = true;                   // else they are in a state that no signal ends
  std::optional<platform::Error> refusal;  // of each signal
  bool hasControlGroups = false;           // of which nothing can hide, and no forged process is
  int searches = 0;
  std::optional<platform::Error> searchFailure;
  std::optional<platform::Error> takeOverFailure;
  bool hidesMarks = false;  // as of another boot

 private:
  struct MarkOf {
    std::string label;
    platform::ProcessId leader = 0;
    std::int64_t startedAt = 0;
    bool isAbandoned = false;       // with its group
    platform::ProcessId group = 0;  // 0 if it leads one of its own
    platform::UserId user = 0;
  };

  class Handle final : public JobProcess {
   public:
    Handle(FakeProcesses& processes, const StartFields& identity)
        : processes_(processes), identity_(identity) {}

    const StartFields& identity() const override { return identity_; }
    void reportIfEnded() override { processes_.reportIfEnded(identity_.process); }
    platform::Result<void> signalGroup(int signal) override {
      if (processes_.refusal) return std::unexpected(*processes_.refusal);
      processes_.signalGroup(identity_.process, signal);
      return {};
    }
    platform::Result<void> killTree() override {
      if (processes_.hasControlGroups) processes_.killTree(processes_.labelOf(identity_.process));
      return signalGroup(SIGKILL);
    }
    platform::Result<void> signalLeader(int signal) override {
      if (processes_.refusal) return std::unexpected(*processes_.refusal);
      processes_.signalLeader(identity_.process, signal);
      return {};
    }
    bool hasRemainingProcesses() override { return processes_.hasRemainingProcesses(identity_); }
    bool hasControlGroup() const override { return processes_.hasControlGroups; }
    std::optional<platform::JobTree> tree() const override {
      if (!processes_.hasControlGroups) return std::nullopt;
      return platform::JobTree{.processes = processes_.countOfTree(identity_.process)};
    }
    platform::UniqueFd copyDescriptor(platform::Descriptor descriptor) override {
      return processes_.copyDescriptor(identity_.process, descriptor);
    }

   private:
    FakeProcesses& processes_;
    const StartFields identity_;
  };

  class MarkedHandle final : public MarkedProcess {
   public:
    MarkedHandle(FakeProcesses& processes, platform::ProcessId process)
        : processes_(processes),
          marked_(processes.marked_.at(process)),
          identity_{process, 0, processes.ticksOf(process), processes.inodeOf(process),
                    marked_.startedAt} {
      identity_.abandonsGroup = marked_.isAbandoned ? 1 : 0;
    }

    const std::string& label() const override { return marked_.label; }
    const StartFields& identity() const override { return identity_; }
    bool isLeader() const override { return marked_.leader == identity_.process; }
    bool hasEnded() const override { return !processes_.isAlive(identity_.process); }
    platform::Result<void> signal(int signal) override {
      processes_.signalGroup(identity_.process, signal);
      return {};
    }

   private:
    FakeProcesses& processes_;
    const MarkOf marked_;
    StartFields identity_;
  };

  struct Process {
    // A pending report checks by it whether it is still wanted.
    std::shared_ptr<OnEnd> onEnd;
    bool ended = false;
    bool isChild = true;
    ProcessEnd status;
    std::vector<platform::UniqueFd> listeners;  // its descriptors 3, 4 and so on
  };

  bool hasRemainingProcesses(const StartFields& identity) {
    if (hasControlGroups && !isAlive(identity.process) && hasDescendants(identity.process)) {
      return true;
    }
    return members_.contains(identity.process) && !isAlive(identity.process) &&
           identity.pidfdInode == inodeOf(identity.process);
  }

  void reportIfEnded(platform::ProcessId process) {
    const auto found = processes_.find(process);
    if (found != processes_.end() && found->second.ended) report(process);
  }

  bool hasDescendants(platform::ProcessId leader) const {
    return std::ranges::any_of(marked_, [&](const auto& entry) {
      return entry.first != leader && entry.second.leader == leader && entry.second.user == 0 &&
             isAlive(entry.first);
    });
  }

  std::int64_t countOfTree(platform::ProcessId leader) const {
    return std::ranges::count_if(marked_, [&](const auto& entry) {
      return entry.second.leader == leader && entry.second.user == 0 && isAlive(entry.first);
    });
  }

  const std::string& labelOf(platform::ProcessId process) const {
    return marked_.at(process).label;
  }

  // As the kernel kills the processes of a control group.
  void killTree(const std::string& label) {
    for (const auto& [process, marked] : marked_) {
      if (marked.label != label || marked.isAbandoned || marked.user != 0 || !obeysKill) continue;
      members_.erase(process);
      if (!isAlive(process)) continue;
      end(process, platform::ExitStatus{platform::ExitStatus::Kind::kSignalled, SIGKILL});
    }
  }

  void signalLeader(platform::ProcessId leader, int signal) {
    signals.push_back({leader, signal, loop_.now()});
    const bool obeys = signal == SIGKILL ? obeysKill : signal == SIGTERM && obeysTermination;
    if (obeys && isAlive(leader)) {
      end(leader, platform::ExitStatus{platform::ExitStatus::Kind::kSignalled, signal});
    }
  }

  void signalGroup(platform::ProcessId group, int signal) {
    signals.push_back({group, signal, loop_.now()});
    if ((signal == SIGKILL && obeysKill) || (signal == SIGTERM && obeysTermination)) {
      members_.erase(group);
      if (isAlive(group))
        end(group, platform::ExitStatus{platform::ExitStatus::Kind::kSignalled, signal});
    }
  }

  std::uint64_t ticksOf(platform::ProcessId process) const {
    return 1000 + static_cast<std::uint64_t>(process);
  }
  std::uint64_t inodeOf(platform::ProcessId process) const {
    return (reused_.contains(process) ? 90000 : 50000) + static_cast<std::uint64_t>(process);
  }

  void report(platform::ProcessId process) {
    auto node = processes_.extract(process);
    if (!node.mapped().onEnd) return;
    OnEnd onEnd = std::move(*node.mapped().onEnd);
    onEnd(node.mapped().isChild ? Ending(node.mapped().status) : Ending());
  }

  platform::VirtualRunLoop& loop_;
  platform::ProcessId next_ = 101;
  std::map<platform::ProcessId, Process> processes_;
  std::map<platform::ProcessId, MarkOf> marked_;
  std::set<platform::ProcessId> members_;
  std::set<platform::ProcessId> reused_;
};

}  // namespace jobhost
