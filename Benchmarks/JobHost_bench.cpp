// The cost that the job host adds to starting a process, and the cost of a job. One file, because
// all of them measure the same host.

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Goal.h"
#include "Benchmarks/RawEcho.h"
#include "JobHost/JobHost.h"
#include "JobHost/Processes/JobGroups.h"
#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/RuntimeFolders.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Values/VerifiedFile.h"

namespace benchmarks {
namespace {

using namespace jobhost;
using platform::Dictionary;
using platform::ProcessId;
using platform::UniqueFd;
using platform::Value;
using Clock = std::chrono::steady_clock;

constexpr int kManyJobs = 1000;
constexpr int kRestartedJobs = 50;
// It waits for ever, or for a signal.
constexpr char kIdleProgram[] = "/bin/sleep";
constexpr char kForEver[] = "infinity";

const bool kAdded[] = {
    atMost({"job-submit", 6,
            "submit() of a job to its answer, its process recorded and started in a new control "
            "group / posix_spawn() and pidfd_open() of the same program, which does nothing, on "
            "one processor"}),
    atMost(
        {"job-restart", 1.15,
         "SIGKILL of a job to its next process executing its verified program / to the same in a "
         "loop of fork, exec and wait"}),
    atMost({"jobs-1000-start", 1.3,
            "1,000 jobs from the first submit() to all of them running / a loop of 1,000 forks and "
            "execs"}),
    atMost({"job-memory", 1, "bytes of the host for each of 1,000 idle jobs / 2048 (as ns)"}),
};

class NullSink final : public platform::LogSink {
 public:
  platform::Result<void> write(const platform::LogRecord&) override { return {}; }
};

// A host below its own root, called directly.
class Bed {
 public:
  Bed() {
    const auto limit = platform::raiseDescriptorLimit();
    auto loop = platform::AsioRunLoop::create();
    if (!limit || !loop) return;
    loop_ = std::move(*loop);
    const std::uint64_t mark = hostMark(root_.path(), *readBootId());
    auto groups = JobGroups::create(mark);
    auto processes = LinuxProcesses::create(
        *loop_, *limit, mark, groups ? std::optional(*std::move(groups)) : std::nullopt);
    if (!processes) return;
    processes_ = std::move(*processes);
    JobHostOptions options;
    options.root = root_.path();
    options.bootId = *readBootId();
    auto host = JobHost::create(*loop_, *processes_, log_, std::move(options));
    if (host) host_ = std::move(*host);
  }
  Bed(const Bed&) = delete;
  Bed& operator=(const Bed&) = delete;
  ~Bed() {
    if (!host_) return;
    host_->shutDown([this] { loop_->stop(); });
    loop_->run();
  }

  explicit operator bool() const { return host_ != nullptr; }
  platform::AsioRunLoop& loop() { return *loop_; }
  JobHost& host() { return *host_; }

  void submit(Dictionary job, JobHost::Completion completion) {
    host_->submit(*parseJobDefinition(Value(std::move(job))), std::move(completion));
  }
  void submitAndAwait(Dictionary job) {
    submit(std::move(job), [this](auto) { loop_->stop(); });
    loop_->run();
  }
  ProcessId pidOf(const std::string& label) {
    return static_cast<ProcessId>(host_->copy(label)["PID"].integer().value_or(0));
  }
  std::string path(const std::string& name) const { return root_.path(name); }

 private:
  platform::TemporaryFolder root_;
  NullSink sink_;
  platform::SystemLog log_{sink_, "jobhost", platform::ASL_LEVEL_NOTICE};
  std::unique_ptr<platform::AsioRunLoop> loop_;
  std::unique_ptr<LinuxProcesses> processes_;
  std::unique_ptr<JobHost> host_;
};

Dictionary idleJob(const std::string& label) {
  return {{"Label", label},
          {"Program", kIdleProgram},
          {"ProgramArguments", platform::Array{kIdleProgram, kForEver}},
          {"KeepAlive", true},
          {"ThrottleInterval", 0},
          {"ExitTimeOut", 5}};
}

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

char* const* idleArguments() {
  static std::array<std::string, 2> texts{kIdleProgram, kForEver};
  static std::array<char*, 3> arguments{texts[0].data(), texts[1].data(), nullptr};
  return arguments.data();
}

// Two thirds of the host's time are the kernel's: clone3() into a new control group, and making
// that. A tenth is the record in the state file. The child's own steps, with execve(), take as long
// as posix_spawn().
Dictionary submittedJob() {
  Dictionary job = idleJob("com.example.job");
  job.set("Program", IDLE_PROGRAM);
  return job;
}

void endAndReap(pid_t process) {
  ::kill(process, SIGKILL);
  ::waitpid(process, nullptr, 0);
}

// The kernel's placement of a new process matters more than the subject, so both stay on one
// processor.
void submitSubject(benchmark::State& state) {
  const Pinned pinned(0);
  Bed bed;
  if (!bed) return state.SkipWithError("no host");
  for (auto _ : state) {
    const auto start = Clock::now();
    bed.submitAndAwait(submittedJob());
    state.SetIterationTime(since(start));
    bed.host().remove("com.example.job", [&](auto) { bed.loop().stop(); });
    bed.loop().run();
  }
}
BENCHMARK(submitSubject)->Name("job-submit/subject")->UseManualTime();

void submitBaseline(benchmark::State& state) {
  const Pinned pinned(0);
  for (auto _ : state) {
    const auto start = Clock::now();
    pid_t process = 0;
    const int error =
        ::posix_spawn(&process, IDLE_PROGRAM, nullptr, nullptr, idleArguments(), environ);
    const UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
    state.SetIterationTime(since(start));
    if (error != 0 || !pidfd) return state.SkipWithError("posix_spawn");
    endAndReap(process);
  }
}
BENCHMARK(submitBaseline)->Name("job-submit/baseline")->UseManualTime();

// A program announces its start by opening this for writing first.
class Announcement {
 public:
  explicit Announcement(std::string path) : path_(std::move(path)) {
    if (::mkfifo(path_.c_str(), 0600) == 0) {
      pipe_.reset(::open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
  }
  int descriptor() const { return pipe_.get(); }
  const std::string& path() const { return path_; }
  std::string script() const { return "echo >" + path_ + "; exec sleep infinity"; }
  bool take() const {
    char bytes[64];
    return ::read(pipe_.get(), bytes, sizeof bytes) > 0;
  }

 private:
  std::string path_;
  UniqueFd pipe_;
};

// A shell that the host compares with its verified state before each start.
void setVerifiedShell(Dictionary& job) {
  const std::string path = std::filesystem::canonical("/bin/sh").string();
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0) std::abort();
  platform::VerifiedFile file;
  file.device = status.st_dev;
  file.inode = status.st_ino;
  file.size = static_cast<std::uint64_t>(status.st_size);
  file.changedSeconds = status.st_ctim.tv_sec;
  file.changedNanoseconds = static_cast<std::uint32_t>(status.st_ctim.tv_nsec);
  file.isSettled = true;
  file.digestName = "SHA256";
  file.digest = platform::Data(32);  // It is not compared.
  job.set("Program", path);
  job.set(platform::kJobVerifiedProgramKey, platform::textOfVerifiedFile(file));
}

void restartSubject(benchmark::State& state) {
  Bed bed;
  if (!bed) return state.SkipWithError("no host");
  const Announcement announcement(bed.path("running"));
  bool runs = false;
  const auto source =
      bed.loop().watchReadable(announcement.descriptor(), platform::Urgency::kOrdinary, [&] {
        announcement.take();
        runs = true;
        bed.loop().stop();
      });
  const auto awaitRunning = [&] {
    while (!runs) bed.loop().run();
    runs = false;
  };
  const auto nameOf = [](int number) { return "com.example.job" + std::to_string(number); };
  for (int number = 0; number < kRestartedJobs; ++number) {
    Dictionary job = idleJob(nameOf(number));
    setVerifiedShell(job);
    job.set("ProgramArguments", platform::Array{"/bin/sh", "-c", announcement.script()});
    bed.submit(std::move(job), [](auto) {});
    awaitRunning();
  }
  int next = kRestartedJobs;
  for (auto _ : state) {
    if (next == kRestartedJobs) {
      // Only after a good run is a job without a throttle started again at once.
      std::this_thread::sleep_for(kGoodRun);
      next = 0;
    }
    const ProcessId process = bed.pidOf(nameOf(next++));
    const auto start = Clock::now();
    ::kill(process, SIGKILL);
    awaitRunning();
    state.SetIterationTime(since(start));
  }
}
BENCHMARK(restartSubject)
    ->Name("job-restart/subject")
    ->UseManualTime()
    ->Iterations(2L * kRestartedJobs);

void restartBaseline(benchmark::State& state) {
  platform::TemporaryFolder folder;
  const Announcement announcement(folder.path("running"));
  const std::string script = announcement.script();
  const auto start = [&] {
    const pid_t process = ::fork();
    if (process == 0) {
      ::setsid();
      ::execl("/bin/sh", "/bin/sh", "-c", script.c_str(), nullptr);
      ::_exit(127);
    }
    return process;
  };
  const auto awaitRunning = [&] {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(announcement.descriptor(), &set);
    ::select(announcement.descriptor() + 1, &set, nullptr, nullptr, nullptr);
    announcement.take();
  };
  pid_t process = start();
  awaitRunning();
  for (auto _ : state) {
    const auto begin = Clock::now();
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
    process = start();
    awaitRunning();
    state.SetIterationTime(since(begin));
  }
  endAndReap(process);
}
BENCHMARK(restartBaseline)->Name("job-restart/baseline")->UseManualTime();

void manySubject(benchmark::State& state) {
  for (auto _ : state) {
    Bed bed;
    if (!bed) return state.SkipWithError("no host");
    int left = kManyJobs;
    const auto start = Clock::now();
    for (int i = 0; i < kManyJobs; ++i) {
      bed.submit(idleJob("com.example.job" + std::to_string(i)), [&](auto outcome) {
        if (!outcome) state.SkipWithError("a submission was refused");
        if (--left == 0) bed.loop().stop();
      });
    }
    bed.loop().run();
    state.SetIterationTime(since(start));
  }
}
BENCHMARK(manySubject)->Name("jobs-1000-start/subject")->UseManualTime()->Iterations(1);

void manyBaseline(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<pid_t> processes;
    // Each process holds the writing end until it executes its program.
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return state.SkipWithError("pipe2");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const auto start = Clock::now();
    for (int i = 0; i < kManyJobs; ++i) {
      const pid_t process = ::fork();
      if (process == 0) {
        ::execv(kIdleProgram, idleArguments());
        ::_exit(127);
      }
      processes.push_back(process);
    }
    writer.reset();
    char byte = 0;
    if (::read(reader.get(), &byte, 1) != 0) return state.SkipWithError("read");
    state.SetIterationTime(since(start));
    for (const pid_t process : processes) endAndReap(process);
  }
}
BENCHMARK(manyBaseline)->Name("jobs-1000-start/baseline")->UseManualTime()->Iterations(1);

// The private memory of the process, with page tables and stacks, or the allocated part of its
// heap, if that has grown more.
struct Usage {
  double resident = 0;
  double allocated = 0;

  static Usage now() { return {static_cast<double>(residentBytes()), allocatedBytes()}; }
  double since(const Usage& before) const {
    return std::max(resident - before.resident, allocated - before.allocated);
  }

 private:
  static double allocatedBytes() {
    const struct mallinfo2 info = ::mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
  }
  static std::size_t residentBytes();
};

std::size_t Usage::residentBytes() {
  std::ifstream status("/proc/self/status");
  std::size_t kilobytes = 0;
  for (std::string name; status >> name;) {
    std::size_t value = 0;
    if (name == "RssAnon:" || name == "VmPTE:") {
      status >> value;
      kilobytes += value;
    }
  }
  return kilobytes * 1024;
}

// Runs in its own process, which first returns the memory that earlier benchmarks have freed.
std::optional<double> measureIdleJobs() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::nullopt;
  UniqueFd reader(ends[0]);
  UniqueFd writer(ends[1]);
  const pid_t child = ::fork();
  if (child == 0) {
    double perJob = -1;
    {
      Bed bed;
      if (!bed) ::_exit(1);
      bed.submitAndAwait(idleJob("com.example.first"));
      ::malloc_trim(0);
      const Usage before = Usage::now();
      for (int i = 0; i < kManyJobs; ++i) {
        bed.submitAndAwait(idleJob("com.example.job" + std::to_string(i)));
      }
      perJob = Usage::now().since(before) / kManyJobs;
    }
    [[maybe_unused]] const auto written = ::write(writer.get(), &perJob, sizeof perJob);
    ::_exit(0);
  }
  writer.reset();
  double perJob = 0;
  const ssize_t count = ::read(reader.get(), &perJob, sizeof perJob);
  ::waitpid(child, nullptr, 0);
  if (count != sizeof perJob || perJob < 0) return std::nullopt;
  return perJob;
}

void memorySubject(benchmark::State& state) {
  for (auto _ : state) {
    const auto perJob = measureIdleJobs();
    if (!perJob) return state.SkipWithError("no host");
    state.SetIterationTime(*perJob * 1e-9);
  }
}
BENCHMARK(memorySubject)->Name("job-memory/subject")->UseManualTime()->Iterations(1);

void memoryBaseline(benchmark::State& state) {
  for (auto _ : state) state.SetIterationTime(2048e-9);
}
BENCHMARK(memoryBaseline)->Name("job-memory/baseline")->UseManualTime()->Iterations(1);

}  // namespace
}  // namespace benchmarks
