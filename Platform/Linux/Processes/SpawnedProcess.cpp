#include "Platform/Linux/Processes/SpawnedProcess.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

// The actions and attributes of posix_spawn(). Their functions return an errno and fail only
// without memory.
class SpawnPlan {
 public:
  SpawnPlan() {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawnattr_init(&attributes_);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;
  ~SpawnPlan() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }

  int prepare(const std::optional<SpawnedProcess::Outputs>& outputs) {
    sigset_t none;
    sigset_t all;
    ::sigemptyset(&none);
    ::sigfillset(&all);
    const auto put = [this](int descriptor, int standard) {
      return ::posix_spawn_file_actions_adddup2(&actions_, descriptor, standard);
    };
    int failure =
        ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (failure == 0 && outputs) failure = put(outputs->standardOutput, STDOUT_FILENO);
    if (failure == 0 && outputs) failure = put(outputs->standardError, STDERR_FILENO);
    if (failure == 0) {
      failure = ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
    if (failure == 0) failure = ::posix_spawnattr_setsigmask(&attributes_, &none);
    if (failure == 0) failure = ::posix_spawnattr_setsigdefault(&attributes_, &all);
    if (failure != 0) return failure;
    return ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

bool isThePathsFault(int number) {
  switch (number) {
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case EPERM:
    case ELOOP:
    case ENAMETOOLONG:
    case EISDIR:
    case ENOEXEC:
    case EINVAL:
    case ETXTBSY:
      return true;
    default:
      return false;
  }
}

bool argumentHoldsZeroByte(const std::string& text) { return text.find('\0') != std::string::npos; }

// The program may be running already, but no program opens a thousand files in its first moments. A
// program that runs as another user (set-user-ID) keeps our limit.
void setDescriptorLimit(pid_t child, std::uint64_t limit) {
  rlimit limits{};
  if (::prlimit(child, RLIMIT_NOFILE, nullptr, &limits) != 0) return;
  limits.rlim_cur = std::min<rlim_t>(limit, limits.rlim_max);
  ::prlimit(child, RLIMIT_NOFILE, &limits, nullptr);
}

}  // namespace

Result<SpawnedProcess> SpawnedProcess::spawn(const std::string& path,
                                             std::vector<std::string> arguments,
                                             std::optional<Outputs> outputs,
                                             std::optional<std::uint64_t> descriptorLimit) {
  if (argumentHoldsZeroByte(path)) return std::unexpected(Error{ErrorCode::kInvalid, EINVAL, path});
  if (std::ranges::any_of(arguments, argumentHoldsZeroByte)) {
    return std::unexpected(Error{ErrorCode::kSystem, EINVAL, path + ": an argument"});
  }
  arguments.insert(arguments.begin(), path);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);

  SpawnPlan plan;
  pid_t child = -1;
  int failure = plan.prepare(outputs);
  if (failure == 0) {
    failure = ::posix_spawn(&child, path.c_str(), plan.actions(), plan.attributes(),
                            pointers.data(), environ);
  }
  if (failure != 0) {
    const auto code = isThePathsFault(failure) ? ErrorCode::kInvalid : ErrorCode::kSystem;
    return std::unexpected(Error{code, failure, path});
  }
  // The child has not been reaped, so the number is still its own.
  UniqueFd pidfd(::pidfd_open(child, 0));
  if (!pidfd) {
    Error error = systemError(path + ": a descriptor to wait for it");
    ::kill(child, SIGKILL);
    retryOnInterrupt([&] { return ::waitpid(child, nullptr, 0); });
    return std::unexpected(std::move(error));
  }
  if (descriptorLimit) setDescriptorLimit(child, *descriptorLimit);
  return SpawnedProcess(std::move(pidfd));
}

SpawnedProcess::~SpawnedProcess() {
  if (!pidfd_) return;
  ::pidfd_send_signal(pidfd_.get(), SIGKILL, nullptr, 0);
  reap();
}

std::optional<int> SpawnedProcess::reap() {
  const UniqueFd pidfd = std::move(pidfd_);
  siginfo_t info{};
  const int result = retryOnInterrupt(
      [&] { return ::waitid(P_PIDFD, static_cast<id_t>(pidfd.get()), &info, WEXITED); });
  return result == 0 ? std::optional(info.si_status) : std::nullopt;
}

}  // namespace platform
