// One file, because the steps of a start share their descriptors, and a step that fails cleans up
// the ones before.

#include "JobHost/Processes/ProcessSpawner.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobKeys.h"
#include "JobHost/Processes/ChildLimits.h"
#include "JobHost/Processes/ChildStart.h"
#include "JobHost/Processes/JobEnvironment.h"
#include "JobHost/Processes/JobPriority.h"
#include "JobHost/Processes/ProgramFile.h"
#include "JobHost/Processes/SpawnedChild.h"
#include "JobHost/Processes/StandardFiles.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::retryOnInterrupt;
using platform::systemError;
using platform::UniqueFd;

constexpr std::size_t kStackBytes = 64 * 1024;
constexpr std::size_t kGuardBytes = 64 * 1024;  // at least a page, whatever the machine's size
constexpr long kPidfdFileSystem = 0x50494446;   // PIDFS_MAGIC, newer than our headers
constexpr mode_t kDefaultUmask = 022;
// The time after which the child first gets SIGCONT, in case another process has stopped it.
constexpr platform::Duration kContinueAfter = std::chrono::milliseconds(50);
constexpr char kNull[] = "/dev/null";

// Blocks all signals of this thread while it lives: a child must not run the host's handlers.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

 private:
  sigset_t before_;
};

// A process that takes other ids becomes undumpable, and so do all that share its memory. Restores
// the host, which would leave no core if it crashed.
class DumpableKept {
 public:
  DumpableKept() = default;
  DumpableKept(const DumpableKept&) = delete;
  DumpableKept& operator=(const DumpableKept&) = delete;
  ~DumpableKept() {
    if (was_ == kDumpable) ::prctl(PR_SET_DUMPABLE, kDumpable);
  }

 private:
  static constexpr int kDumpable = 1;

  int was_ = ::prctl(PR_GET_DUMPABLE);
};

// The memory that a SpawnedChild points to.
class ChildSetup {
 public:
  Result<void> prepare(const JobDefinition& job, const JobAccount& account, int null,
                       std::span<const platform::Descriptor> listeners, const JobOutput& output,
                       std::uint64_t originalDescriptorLimit, const JobMark& mark);

  SpawnedChild child{};

 private:
  Result<void> openProgram(const JobDefinition& job);
  Result<void> moveAboveThoseOfTheChild();

  std::vector<char*> arguments_;
  std::optional<JobEnvironment> environment_;
  std::vector<UniqueFd> opened_;
  std::vector<int> descriptors_;
  std::vector<ChildLimit> limits_;
  // Open until the start, and with it the lease on the file.
  std::optional<ProgramFile> program_;
  UniqueFd movedProgram_;
};

// The child must not overwrite a descriptor before it has copied it.
Result<void> ChildSetup::moveAboveThoseOfTheChild() {
  const int count = static_cast<int>(descriptors_.size());
  for (int& descriptor : descriptors_) {
    if (descriptor >= count) continue;
    UniqueFd moved(::fcntl(descriptor, F_DUPFD_CLOEXEC, count));
    if (!moved) return std::unexpected(systemError("passing the descriptors"));
    descriptor = moved.get();
    opened_.push_back(std::move(moved));
  }
  return {};
}

// Comes after all other files: this one must not change from here on.
Result<void> ChildSetup::openProgram(const JobDefinition& job) {
  child.program = job.program.c_str();
  child.programFile = -1;
  if (!job.verifiedProgram) return {};
  auto program = ProgramFile::open(job.program, *job.verifiedProgram);
  if (!program) return std::unexpected(std::move(program.error()));
  program_ = *std::move(program);
  const int count = static_cast<int>(descriptors_.size());
  if (program_->isScript()) {
    child.programFile = count;
    descriptors_.push_back(program_->get());
    return {};
  }
  child.programFile = program_->get();
  if (child.programFile < count) {
    movedProgram_.reset(::fcntl(child.programFile, F_DUPFD_CLOEXEC, count));
    if (!movedProgram_) return std::unexpected(systemError("passing the descriptors"));
    child.programFile = movedProgram_.get();
  }
  return {};
}

Result<void> ChildSetup::prepare(const JobDefinition& job, const JobAccount& account, int null,
                                 std::span<const platform::Descriptor> listeners,
                                 const JobOutput& output, std::uint64_t originalDescriptorLimit,
                                 const JobMark& mark) {
  // execve() does not write to what it is given.
  for (const std::string& argument : job.arguments) {
    arguments_.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments_.push_back(nullptr);
  environment_.emplace(job, account, !listeners.empty(), mark);
  auto files = openStandardFiles(job, account, output);
  if (!files) return std::unexpected(std::move(files.error()));
  child.ignoresBrokenPipe = output && hasStreamToJournal(*files);
  for (UniqueFd& file : *files) {
    descriptors_.push_back(file ? file.get() : null);
    if (file) opened_.push_back(std::move(file));
  }
  descriptors_.insert(descriptors_.end(), listeners.begin(), listeners.end());
  if (auto opened = openProgram(job); !opened) return opened;
  if (auto moved = moveAboveThoseOfTheChild(); !moved) return moved;
  auto limits = limitsOf(job, originalDescriptorLimit, LimitsOfHost::kAreInherited);
  if (!limits) return std::unexpected(std::move(limits.error()));
  limits_ = *std::move(limits);
  child.arguments = arguments_.data();
  child.environment = environment_->variables();
  child.listenPid = environment_->listenPid();
  child.markPid = environment_->markPid();
  child.descriptors = descriptors_.data();
  child.descriptorCount = static_cast<int>(descriptors_.size());
  child.rootDirectory = job.rootDirectory ? job.rootDirectory->c_str() : nullptr;
  child.workingDirectory = job.workingDirectory.c_str();
  // An unprivileged host can only run jobs as itself, and may not even set the ids that it has.
  child.changesIds =
      ::geteuid() == 0 || account.user != ::geteuid() || account.group != ::getegid();
  child.user = account.user;
  child.group = account.group;
  child.groups = account.groups.data();
  child.groupCount = account.groups.size();
  child.limits = limits_.data();
  child.limitCount = limits_.size();
  child.umask = job.umask.value_or(kDefaultUmask);
  const JobPriority priority = priorityOf(job);
  child.nice = priority.nice;
  child.ioPriority = priority.ioPriority;
  return {};
}

// The signals whose disposition this process may change before it starts others. Real-time signals
// are half of all, and this process uses none: they keep the dispositions that it was started with.
std::uint64_t signalsToReset() {
  constexpr int kFirstRealTimeSignal = 32;  // the kernel's; the library keeps some of them
  constexpr int kLastSignal = 64;
  std::uint64_t signals = (std::uint64_t{1} << (kFirstRealTimeSignal - 1)) - 1;
  for (int signal = kFirstRealTimeSignal; signal <= kLastSignal; ++signal) {
    struct sigaction now{};
    // The library reports nothing about the signals that it reserves.
    const bool isDefault = ::sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_DFL;
    if (!isDefault) signals |= std::uint64_t{1} << (signal - 1);
  }
  return signals;
}

// Whether the processes of this one get the default score. False if that can't be read.
bool hasDefaultOomScore() {
  const UniqueFd file(::open("/proc/self/oom_score_adj", O_RDONLY | O_CLOEXEC));
  char text[2];
  return file && retryOnInterrupt([&] { return ::read(file.get(), text, sizeof text); }) > 0 &&
         text[0] == '0';
}

// Whether this process has exactly the ids and groups of its account.
bool hasIdsOf(const JobAccount& account) {
  uid_t users[3];
  gid_t groups[3];
  if (::getresuid(&users[0], &users[1], &users[2]) != 0) return false;
  if (::getresgid(&groups[0], &groups[1], &groups[2]) != 0) return false;
  if (std::ranges::count(users, account.user) != 3) return false;
  if (std::ranges::count(groups, account.group) != 3) return false;
  const int count = ::getgroups(0, nullptr);
  std::vector<gid_t> now(static_cast<std::size_t>(std::max(count, 0)));
  if (count < 0 || ::getgroups(count, now.data()) != count) return false;
  std::vector<gid_t> wanted = account.groups;
  std::ranges::sort(now);
  std::ranges::sort(wanted);
  return now == wanted;
}

timespec timespecOf(platform::Duration duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return {seconds.count(), (duration - seconds).count()};
}

std::string describeStage(const SpawnedChild& child, const JobDefinition& job,
                          const JobAccount& account) {
  using platform::quotedInMessage;
  using platform::quotedWhole;
  switch (child.stage) {
    case ChildStage::kBegin:
      return "the new process";
    case ChildStage::kSession:
      return "setsid";
    case ChildStage::kTimers:
      return "setting the time for the start";
    case ChildStage::kIdentity:
      return "reading the new process's start time from /proc";
    case ChildStage::kDescriptors:
      return "passing the descriptors";
    case ChildStage::kLimit:
      return fmt::format("setrlimit of \"{}\"",
                         nameOfLimit(child.limits[child.failedLimit].resource));
    case ChildStage::kNice:
      return fmt::format("setpriority to {}", child.nice);
    case ChildStage::kRootDirectory:
      return "key \"RootDirectory\": chroot to " + quotedWhole(job.rootDirectory.value_or("/"));
    case ChildStage::kGroups:
      return "setgroups for " + quotedInMessage(account.name);
    case ChildStage::kGroup:
      return fmt::format("setgid to {}", account.group);
    case ChildStage::kUser:
      return fmt::format("setuid to {} ({})", account.user, quotedInMessage(account.name));
    case ChildStage::kWorkingDirectory:
      return "key \"WorkingDirectory\": chdir to " + quotedWhole(job.workingDirectory);
    case ChildStage::kExecute:
      return "executing " + quotedWhole(job.program);
  }
  return "starting";
}

}  // namespace

bool pidfdsAreUnique() {
  const UniqueFd self(::pidfd_open(::getpid(), 0));
  struct statfs status{};
  return self && ::fstatfs(self.get(), &status) == 0 && status.f_type == kPidfdFileSystem;
}

Result<ProcessSpawner> ProcessSpawner::create(std::uint64_t originalDescriptorLimit,
                                              std::uint64_t host, platform::Duration startTimeOut) {
  ProcessSpawner spawner;
  spawner.host_ = host;
  spawner.originalDescriptorLimit_ = originalDescriptorLimit;
  spawner.startTimeOut_ = startTimeOut;
  spawner.hasUniquePidfds_ = pidfdsAreUnique();
  spawner.signalsToReset_ = signalsToReset();
  spawner.resetsOomScore_ = !hasDefaultOomScore();
  auto own = lookUpAccount({}, {});
  if (!own) return std::unexpected(std::move(own.error()));
  spawner.ownAccount_ = *std::move(own);
  spawner.hasItsIds_ = hasIdsOf(spawner.ownAccount_);
  UniqueFd null(::open(kNull, O_RDWR | O_CLOEXEC | O_NOCTTY));
  if (!null) return std::unexpected(systemError("opening /dev/null"));
  spawner.null_ = std::move(null);
  void* const stack = ::mmap(nullptr, kGuardBytes + kStackBytes, PROT_READ | PROT_WRITE,
                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED) return std::unexpected(systemError("a stack for new processes"));
  spawner.stack_ = stack;
  if (::mprotect(stack, kGuardBytes, PROT_NONE) != 0) {
    return std::unexpected(systemError("guarding the stack for new processes"));
  }
  return spawner;
}

ProcessSpawner::ProcessSpawner(ProcessSpawner&& other) noexcept
    : originalDescriptorLimit_(other.originalDescriptorLimit_),
      host_(other.host_),
      startTimeOut_(other.startTimeOut_),
      hasUniquePidfds_(other.hasUniquePidfds_),
      resetsOomScore_(other.resetsOomScore_),
      signalsToReset_(other.signalsToReset_),
      ownAccount_(std::move(other.ownAccount_)),
      hasItsIds_(other.hasItsIds_),
      null_(std::move(other.null_)),
      stack_(std::exchange(other.stack_, nullptr)) {}

ProcessSpawner::~ProcessSpawner() {
  if (stack_) ::munmap(stack_, kGuardBytes + kStackBytes);
}

Result<StartedChild> ProcessSpawner::spawn(const JobDefinition& job, const StartTicket& ticket,
                                           std::span<const platform::Descriptor> listeners,
                                           platform::Descriptor group, const JobOutput& output) {
  const auto failed = [&](Error error) {
    error.context.insert(0, fmt::format("job {}: ", platform::quotedInMessage(job.label)));
    return std::unexpected(std::move(error));
  };
  if (!listeners.empty() && listeners.size() != job.machServices.size()) {
    return failed(Error{ErrorCode::kInvalid, 0,
                        fmt::format("{} sockets are passed to it, and it has {} services",
                                    listeners.size(), job.machServices.size())});
  }
  const bool isOwn = !job.userName && !job.groupName;
  auto account = isOwn ? ownAccount_ : lookUpAccount(job.userName, job.groupName);
  if (!account) return failed(std::move(account.error()));
  if (!job.initGroups && job.userName) account->groups = {account->group};
  const DumpableKept dumpable;
  ChildSetup setup;
  StartFields start;
  std::memcpy(&start, ticket.record.data() + sizeof(RecordHeader), sizeof start);
  const JobMark mark{host_, start.startedAt, job.label, 0, job.abandonsProcessGroup};
  if (auto prepared = setup.prepare(job, *account, null_.get(), listeners, output,
                                    originalDescriptorLimit_, mark);
      !prepared) {
    return failed(std::move(prepared.error()));
  }
  SpawnedChild& child = setup.child;
  child.stateFile = ticket.file;
  child.startRecord = ticket.record.data();
  child.startRecordSize = ticket.record.size();
  child.hasUniquePidfds = hasUniquePidfds_;
  child.resetsOomScore = resetsOomScore_;
  // The process inherits these. Setting them once more would make each restart slower.
  child.resetsScheduler = ::sched_getscheduler(0) != SCHED_OTHER;
  if (isOwn && hasItsIds_) child.changesIds = false;
  child.signalsToReset = signalsToReset_;
  child.continueAfter = timespecOf(kContinueAfter);
  child.startTimeOut = timespecOf(startTimeOut_);

  // The kernel suspends this thread until the child has executed its program or ended, even while
  // another process keeps the child stopped. The child's own timers bound that time.
  StartedChild started = [&] {
    const SignalsBlocked blocked;
    return startChild(child, static_cast<char*>(stack_) + kGuardBytes, kStackBytes, group);
  }();
  if (started.process < 0) return failed(systemError("fork"));
  if (ticket.writeError) *ticket.writeError = child.recordError;
  if (child.error == 0 && child.stage == ChildStage::kExecute) return started;
  // It executed no program, so it ends at once.
  retryOnInterrupt([&] {
    return ::waitid(P_PIDFD, static_cast<id_t>(started.pidfd.get()), nullptr, WEXITED | __WALL);
  });
  const std::string stage = describeStage(child, job, *account);
  if (child.error == 0) {
    const auto seconds = std::chrono::duration<double>(startTimeOut_).count();
    return failed(
        Error{ErrorCode::kSystem, 0,
              fmt::format("{}: somebody killed the new process, or it had not come to its "
                          "program after {} s",
                          stage, seconds)});
  }
  return failed(Error{ErrorCode::kSystem, child.error, stage});
}

}  // namespace jobhost
