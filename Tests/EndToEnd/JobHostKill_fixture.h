#pragma once

// A job host with twenty jobs, each with a process named after it. The tests kill the host and
// start the next one.

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Tests/EndToEnd/ChildProgram.h"
#include "Tests/EndToEnd/Tracing.h"

namespace platform {

inline constexpr int kJobs = 20;
inline constexpr ExitStatus kKilled{ExitStatus::Kind::kSignalled, SIGKILL};

inline std::string firstArgument(const std::filesystem::path& process) {
  for (;;) {
    std::ifstream file(process / "cmdline");
    std::string first;
    std::getline(file, first, '\0');
    std::error_code error;
    const auto program = std::filesystem::read_symlink(process / "exe", error);
    // The arguments appear shortly after the program.
    if (!first.empty() || program.filename() != "sleep") return first;
  }
}

// The processes whose first argument is a label, by label. Processes that have ended have no
// arguments.
inline std::multimap<std::string, ProcessId> processesByLabel(const std::string& prefix) {
  std::multimap<std::string, ProcessId> processes;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != name.npos) continue;
    const std::string first = firstArgument(entry.path());
    if (first.starts_with(prefix)) processes.emplace(first, std::stoi(name));
  }
  return processes;
}

class JobHostKill : public testing::Test {
 protected:
  void SetUp() override {
    if (!canTrace()) GTEST_SKIP() << "programs can't be traced here (ptrace is not permitted)";
    startHost();
    for (int i = 0; i < kJobs; ++i) {
      host_->send("submit " + label(i) + " 0");
      ASSERT_EQ(host_->nextLine(), "done");
    }
    jobs_ = list();
    ASSERT_EQ(jobs_.size(), kJobs);
  }

  void TearDown() override {
    host_.reset();
    for (const auto& [label, process] : processesByLabel(prefix_)) ::kill(process, SIGKILL);
  }

  // If it does not start, shows what it wrote to the log.
  void startHost() {
    host_ = std::make_unique<ChildProgram>(std::vector<std::string>{JOB_HOST_PROGRAM, root_.path()},
                                           std::vector<std::string>{});
    ASSERT_EQ(host_->nextLine(), "ready") << host_->errors();
  }

  // Kills the host if it still runs: the call may come after the answer, or not at all if the calls
  // differ from those traced.
  void endHost() {
    host_->signal(SIGKILL);
    EXPECT_EQ(host_->waitForExit(), kKilled);
  }

  // A host does not make exactly the calls that were traced: it may learn two events in one wait or
  // in two. So it need not be killed at each traced call. But it must be killed at most of them,
  // and at the first of each kind in `changes`, which every run makes.
  static void expectKilled(const std::vector<TracedCall>& killed,
                           const std::vector<TracedCall>& traced,
                           const std::vector<std::string>& changes) {
    EXPECT_GT(2 * killed.size(), traced.size());
    for (const std::string& change : changes) {
      const bool isKilled = std::ranges::any_of(
          killed, [&](const TracedCall& call) { return call.name == change && call.number == 1; });
      EXPECT_TRUE(isKilled) << "never killed at " << change;
    }
    RecordProperty("calls", static_cast<int>(traced.size()));
    RecordProperty("kills", static_cast<int>(killed.size()));
  }

  std::string label(int number) const { return prefix_ + std::to_string(number); }

  std::map<std::string, ProcessId> list() {
    host_->send("list");
    return restOfList().value_or(std::map<std::string, ProcessId>());
  }

  // Empty if the host ends before the end of the list.
  std::optional<std::map<std::string, ProcessId>> restOfList() {
    std::map<std::string, ProcessId> jobs;
    for (;;) {
      const auto line = host_->nextLineIfAny();
      if (!line) return std::nullopt;
      if (*line == "end") return jobs;
      std::istringstream words(*line);
      std::string label;
      words >> label >> jobs[label];
    }
  }

  // Expects that the host's list is what runs: each job has one process, and no process is without
  // a job.
  void expectNoneLostNoneDoubled() {
    std::multimap<std::string, ProcessId> listed;
    for (const auto& [label, process] : list()) listed.emplace(label, process);
    EXPECT_EQ(listed, processesByLabel(prefix_));
  }

  static void killAndAwait(ProcessId process) {
    const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    ASSERT_TRUE(pidfd);
    ASSERT_EQ(::kill(process, SIGKILL), 0);
    pollfd entry{pidfd.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 60'000), 1);
  }

  void expectKilledJobIsStartedAgain(const std::string& label, ProcessId process) {
    killAndAwait(process);
    const ProcessId next = list()[label];
    EXPECT_GT(next, 0);
    EXPECT_NE(next, process);
  }

  TemporaryFolder root_;
  // The prefix tells these jobs from those of another test or run.
  const std::string prefix_ = "com.example." + std::to_string(::getpid()) + ".";
  std::unique_ptr<ChildProgram> host_;
  std::map<std::string, ProcessId> jobs_;
};

}  // namespace platform
