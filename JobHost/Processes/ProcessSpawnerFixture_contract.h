#pragma once

// Spawns real processes for tests, below a folder of their own.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/Processes/ProcessSpawner.h"
#include "JobHost/State/StateReader.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace jobhost {

inline constexpr std::uint64_t kDescriptorLimit = 777;
inline constexpr std::uint64_t kHost = 0xabc;

class ProcessSpawnerTest : public testing::Test {
 protected:
  ProcessSpawnerTest() {
    auto spawner = ProcessSpawner::create(kDescriptorLimit, kHost);
    EXPECT_TRUE(spawner) << platform::describe(spawner.error());
    spawner_.emplace(*std::move(spawner));
    file_.reset(
        ::open(folder_.path("state").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  }

  // A job whose shell script writes to a file that output() reads.
  JobDefinition script(const std::string& text) const {
    JobDefinition job;
    job.label = "com.example.job";
    job.program = "/bin/sh";
    job.arguments = {"sh", "-c", text};
    job.standardOutPath = folder_.path("output");
    job.standardErrorPath = folder_.path("output");
    return job;
  }

  platform::Result<ProcessSpawner::Spawned> spawn(const JobDefinition& job,
                                                  const std::vector<int>& listeners = {}) {
    record_ = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
    return spawner_->spawn(job, {file_.get(), record_}, listeners);
  }

  platform::ExitStatus awaitEnd(const ProcessSpawner::Spawned& spawned) {
    pollfd entry{spawned.pidfd.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 60'000), 1);
    siginfo_t info{};
    EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(spawned.process), &info, WEXITED), 0);
    return {info.si_code == CLD_EXITED ? platform::ExitStatus::Kind::kExited
                                       : platform::ExitStatus::Kind::kSignalled,
            info.si_status};
  }

  std::string output() const {
    std::ifstream file(folder_.path("output"));
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }

  std::string outputOf(const JobDefinition& job, const std::vector<int>& listeners = {}) {
    ::unlink(folder_.path("output").c_str());
    const auto spawned = spawn(job, listeners);
    EXPECT_TRUE(spawned) << platform::describe(spawned.error());
    if (spawned) awaitEnd(*spawned);
    return output();
  }
  std::string outputOfScript(const std::string& text) { return outputOf(script(text)); }

  std::string refusal(const JobDefinition& job) {
    const auto spawned = spawn(job);
    EXPECT_FALSE(spawned);
    if (spawned) {
      awaitEnd(*spawned);
      return "";
    }
    expectReaped();
    return platform::describe(spawned.error());
  }

  platform::ProcessId recordedProcess() const {
    StartFields fields;
    std::memcpy(&fields, record_.data() + sizeof(RecordHeader), sizeof fields);
    return fields.process;
  }

  // Expects that the process of the last spawn(), if it recorded its number, is no child any more.
  // There may be other children, left by earlier tests of this program.
  void expectReaped() const {
    if (recordedProcess() == 0) return;
    EXPECT_EQ(::waitpid(recordedProcess(), nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
  }

  std::size_t recordedBytes() const {
    struct stat status{};
    EXPECT_EQ(::fstat(file_.get(), &status), 0);
    return static_cast<std::size_t>(status.st_size);
  }

  platform::TemporaryFolder folder_;
  std::optional<ProcessSpawner> spawner_;
  platform::UniqueFd file_;
  std::vector<std::uint8_t> record_;
};

}  // namespace jobhost
