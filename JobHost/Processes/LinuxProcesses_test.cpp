#include "JobHost/Processes/LinuxProcesses.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <fstream>
#include <future>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "JobHost/Processes/FakeProcesses_contract.h"
#include "JobHost/Processes/Processes_contract.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace jobhost {
namespace {

using platform::DescriptorShortage;
using platform::ExitStatus;
using platform::ProcessId;
using platform::UniqueFd;

JobDefinition numberedJob(int number) {
  JobDefinition job;
  job.label = "com.example.job" + std::to_string(number);
  return job;
}

// Shells that read their exit status from a pipe of their own.
class LinuxProcessesHarness : public ProcessesHarness {
 public:
  enum class Groups { kNone, kIfPossible };

  explicit LinuxProcessesHarness(Groups groups)
      : processes_(
            std::move(*LinuxProcesses::create(*loop_, kDescriptorLimit, kHost, groupsIf(groups)))),
        groups_(groups) {}

  ~LinuxProcessesHarness() override {
    for (auto& [process, state] : started_) {
      if (state.ended) continue;
      ::kill(-process, SIGKILL);
      ::waitid(P_PIDFD, static_cast<id_t>(state.pidfd.get()), nullptr, WEXITED);
    }
  }

  platform::AsioRunLoop& loop() override { return *loop_; }
  LinuxProcesses& processes() override { return *processes_; }

  JobDefinition job(Kind kind) override {
    JobDefinition job = numberedJob(++jobs_);
    const std::string pipe = folder_.path(job.label);
    EXPECT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    // With a writer of ours, opening it does not wait.
    pipes_[job.label].reset(::open(pipe.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    EXPECT_TRUE(pipes_[job.label]);
    job.program = kind == Kind::kUnstartable ? "/no/such/program" : "/bin/sh";
    const std::string member = kind == Kind::kWithMember ? "sleep 1000 & " : "";
    job.arguments = {"sh", "-c", member + "read status <" + pipe + "; exit $status"};
    return job;
  }

  void started(ProcessId process, const JobDefinition& job) override {
    Started& started = started_[process];
    started = {UniqueFd(::pidfd_open(process, 0)), pipes_.at(job.label).get(), false};
    EXPECT_TRUE(started.pidfd);
  }

  void end(ProcessId process, ExitStatus status) override {
    Started& started = started_.at(process);
    if (status.kind == ExitStatus::Kind::kSignalled) {
      ::pidfd_send_signal(started.pidfd.get(), status.number, nullptr, 0);
    } else {
      const std::string line = std::to_string(status.number) + "\n";
      EXPECT_EQ(::write(started.pipe, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    pollfd entry{started.pidfd.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&entry, 1, 60'000), 1);
    started.ended = true;
  }

  // The other host's processes must not become children of this process, which would then learn how
  // they end.
  ProcessId startElsewhere(const JobDefinition& job, const StartTicket& ticket) override {
    EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 0), 0);
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    const pid_t host = ::fork();
    if (host == 0) {
      const auto loop = platform::AsioRunLoop::create();
      const auto processes =
          LinuxProcesses::create(**loop, kDescriptorLimit, kHost, groupsIf(groups_));
      const auto process = (*processes)->start(job, ticket, {}, [](Ending) {});
      const ProcessId number = process ? (*process)->identity().process : 0;
      ::_exit(::write(writing.get(), &number, sizeof number) == sizeof number ? 0 : 1);
    }
    writing.reset();
    ProcessId process = 0;
    EXPECT_EQ(::read(reading.get(), &process, sizeof process),
              static_cast<ssize_t>(sizeof process));
    EXPECT_EQ(::waitpid(host, nullptr, 0), host);
    EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    return process;
  }

 private:
  static constexpr std::uint64_t kDescriptorLimit = 1024;
  // No other harness has its marks and groups, also none in another pid namespace, where the same
  // numbers of processes share the control groups.
  const std::uint64_t kHost =
      (std::uint64_t{std::random_device()()} << 32) | std::random_device()();

  std::optional<JobGroups> groupsIf(Groups wanted) const {
    if (wanted == Groups::kNone) return std::nullopt;
    auto groups = JobGroups::create(kHost);
    return groups ? std::optional(*std::move(groups)) : std::nullopt;
  }

  struct Started {
    UniqueFd pidfd;
    int pipe = -1;
    bool ended = false;
  };

  platform::TemporaryFolder folder_;
  int jobs_ = 0;
  std::map<std::string, UniqueFd> pipes_;
  std::map<ProcessId, Started> started_;
  std::unique_ptr<platform::AsioRunLoop> loop_ = std::move(*platform::AsioRunLoop::create());
  std::unique_ptr<LinuxProcesses> processes_;
  const Groups groups_;
};

class FakeProcessesHarness final : public ProcessesHarness {
 public:
  platform::VirtualRunLoop& loop() override { return loop_; }
  FakeProcesses& processes() override { return processes_; }

  JobDefinition job(Kind kind) override {
    kind_ = kind;
    if (kind == Kind::kUnstartable) {
      processes_.failure = platform::Error{platform::ErrorCode::kSystem, ENOENT, "executing"};
    }
    return numberedJob(++jobs_);
  }
  void started(ProcessId process, const JobDefinition&) override {
    if (kind_ == Kind::kWithMember) processes_.addMember(process);
  }
  void end(ProcessId process, ExitStatus status) override { processes_.end(process, status); }
  ProcessId startElsewhere(const JobDefinition& job, const StartTicket& ticket) override {
    const auto process = processes_.start(job, ticket, {}, [](Ending) {});
    processes_.dropWatches();
    return process ? (*process)->identity().process : 0;
  }

 private:
  platform::VirtualRunLoop loop_;
  FakeProcesses processes_{loop_};
  int jobs_ = 0;
  Kind kind_ = Kind::kAlone;
};

std::unique_ptr<ProcessesHarness> makeLinuxHarness() {
  return std::make_unique<LinuxProcessesHarness>(LinuxProcessesHarness::Groups::kNone);
}
std::unique_ptr<ProcessesHarness> makeGroupsHarness() {
  return std::make_unique<LinuxProcessesHarness>(LinuxProcessesHarness::Groups::kIfPossible);
}
std::unique_ptr<ProcessesHarness> makeFakeHarness() {
  return std::make_unique<FakeProcessesHarness>();
}

// Ends by a signal that dumps core, if the system does so.
ProcessEnd endWithCore() {
  JobDefinition job = numberedJob(0);
  job.program = "/bin/sh";
  job.arguments = {"sh", "-c", "ulimit -c unlimited; kill -SEGV $$"};
  platform::TemporaryFolder folder;
  job.workingDirectory = folder.path();
  const auto loop = std::move(*platform::AsioRunLoop::create());
  const auto processes = std::move(*LinuxProcesses::create(*loop, 1024, 7));
  const UniqueFd file(::open(folder.path("state").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  std::vector<std::uint8_t> record = makeRecord(RecordKind::kStarted, startPayload({}, job.label));
  Ending result;
  const auto process = processes->start(job, {file.get(), record}, {}, [&](Ending ending) {
    result = ending;
    loop->stop();
  });
  EXPECT_TRUE(process);
  if (process) loop->run();
  return result.value_or(ProcessEnd());
}

TEST(LinuxProcesses, ACoreDumpIsReported) {
  std::string pattern;
  std::getline(std::ifstream("/proc/sys/kernel/core_pattern"), pattern);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_CORE, &limit), 0);
  if (pattern.empty() || pattern.find_first_of("|/@") == 0 || limit.rlim_max != RLIM_INFINITY) {
    GTEST_SKIP() << "nobody may leave a core in a folder of the test here: " << pattern;
  }
  EXPECT_EQ(endWithCore(), ProcessEnd(ExitStatus{ExitStatus::Kind::kSignalled, SIGSEGV}, true));
}

// Whether the process ends within a minute.
bool hasEnded(ProcessId process) {
  const UniqueFd pidfd(::pidfd_open(process, 0));
  pollfd entry{pidfd.get(), POLLIN, 0};
  return ::poll(&entry, 1, 60'000) == 1;
}

// A process whose first thread has ended while another one lives.
[[noreturn]] void endFirstThread(const UniqueFd& tellTo) {
  std::thread([&] {
    std::string stat;
    do {
      std::getline(std::ifstream("/proc/self/stat"), stat);
    } while (stat.find(") Z ") == stat.npos);
    const pid_t self = ::getpid();
    static_cast<void>(::write(tellTo.get(), &self, sizeof self));
    for (;;) ::pause();
  }).detach();
  ::syscall(SYS_exit, 0);  // This thread alone.
  ::_exit(1);
}

TEST(LinuxProcesses, AProcessWhoseFirstThreadHasEndedRemainsInItsGroup) {
  const auto loop = std::move(*platform::AsioRunLoop::create());
  const auto processes = std::move(*LinuxProcesses::create(*loop, 1024, 7));
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd reading(ends[0]);
  const UniqueFd writing(ends[1]);
  const pid_t leader = ::fork();
  if (leader == 0) {
    ::setsid();
    if (::fork() == 0) endFirstThread(writing);
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(leader, nullptr, 0), leader);
  pid_t member = 0;
  ASSERT_EQ(::read(reading.get(), &member, sizeof member), ssize_t{sizeof member});
  const StartFields identity{.process = leader, .startTicks = 1};
  const auto remains = processes->remainsOf(identity);
  ASSERT_TRUE(remains);
  EXPECT_TRUE(remains->signalGroup(SIGTERM));
  EXPECT_TRUE(hasEnded(member));
  static_cast<void>(::kill(-leader, SIGKILL));
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(member), nullptr, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(processes->remainsOf(identity));  // Although it is not reaped.
  EXPECT_EQ(::waitpid(member, nullptr, 0), member);
}

// The system has no handle for the number of a thread.
TEST(LinuxProcesses, TheNumberOfAThreadMeansNoProcess) {
  const auto loop = std::move(*platform::AsioRunLoop::create());
  const auto processes = std::move(*LinuxProcesses::create(*loop, 1024, 7));
  std::promise<ProcessId> number;
  std::promise<void> isDone;
  std::thread other([&] {
    number.set_value(static_cast<ProcessId>(::syscall(SYS_gettid)));
    isDone.get_future().wait();
  });
  const auto taken =
      processes->takeOver({.process = number.get_future().get(), .startTicks = 1}, {});
  isDone.set_value();
  other.join();
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code, platform::ErrorCode::kNotFound);
}

TEST(LinuxProcesses, WithoutDescriptorsAGroupIsNotTakenForEmpty) {
  const auto loop = std::move(*platform::AsioRunLoop::create());
  const auto processes = std::move(*LinuxProcesses::create(*loop, 1024, 7));
  const pid_t leader = ::fork();
  if (leader == 0) {
    ::setsid();
    if (::fork() == 0) {
      for (;;) ::pause();
    }
    ::_exit(0);
  }
  ASSERT_EQ(::waitpid(leader, nullptr, 0), leader);
  const StartFields identity{.process = leader, .startTicks = 1};
  EXPECT_TRUE(processes->remainsOf(identity));
  // With the one descriptor it can list the processes, but read none.
  for (const auto left : {DescriptorShortage::Left::kNone, DescriptorShortage::Left::kOne}) {
    const DescriptorShortage shortage(left);
    EXPECT_TRUE(processes->remainsOf(identity));
  }
  EXPECT_EQ(::kill(-leader, SIGKILL), 0);
}

TEST(LinuxProcesses, WithoutDescriptorsAProcessIsNotTakenForEnded) {
  const auto loop = std::move(*platform::AsioRunLoop::create());
  const auto processes = std::move(*LinuxProcesses::create(*loop, 1024, 7));
  const StartFields identity{.process = ::getpid(), .startTicks = 1};
  for (const auto left : {DescriptorShortage::Left::kNone, DescriptorShortage::Left::kOne}) {
    const auto taken = [&] {
      const DescriptorShortage shortage(left);
      return processes->takeOver(identity, {});
    }();
    ASSERT_FALSE(taken);
    EXPECT_EQ(taken.error().code, platform::ErrorCode::kExhausted);
  }
  EXPECT_EQ(processes->takeOver(identity, {}).error().code, platform::ErrorCode::kNotFound);
}

INSTANTIATE_TEST_SUITE_P(Linux, ProcessesContract, testing::Values(&makeLinuxHarness));
INSTANTIATE_TEST_SUITE_P(LinuxGroups, ProcessesContract, testing::Values(&makeGroupsHarness));
INSTANTIATE_TEST_SUITE_P(Fake, ProcessesContract, testing::Values(&makeFakeHarness));

}  // namespace
}  // namespace jobhost
