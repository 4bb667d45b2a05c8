#include "Platform/Linux/SystemFacts/LinuxSystemInformation.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Linux/SystemFacts/ExecutablePath.h"
#include "Platform/Linux/SystemFacts/ProcessRecord.h"
#include "Platform/Linux/SystemFacts/UserIdentity.h"
#include "Platform/SystemFacts/Gestalt.h"

namespace platform {
namespace {

// More than all lines up to those that are needed. The file is longer if a process has many groups.
constexpr std::size_t kProcessFileBytes = 4096;

// The line "btime" follows a line per processor and a line with a count per interrupt.
constexpr std::size_t kMaximumSystemStatBytes = 4 * 1024 * 1024;

// The text of one of a process's files, std::nullopt if the process has ended.
Result<std::optional<std::string>> readProcessFile(int folder, const char* file,
                                                   const std::string& path) {
  const UniqueFd descriptor(::openat(folder, file, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!descriptor && (errno == ENOENT || errno == ESRCH)) return std::nullopt;
  if (!descriptor) return std::unexpected(systemError(path + "/" + file));
  auto text = readAtMost(descriptor.get(), kProcessFileBytes, path + "/" + file);
  if (!text && text.error().osError == ESRCH) return std::nullopt;
  if (!text) return std::unexpected(std::move(text).error());
  return *std::move(text);
}

// The descriptor keeps referring to the same process, even if its number is used again.
Result<std::optional<UniqueFd>> openProcessFolder(const std::string& procFolder,
                                                  const std::string& path) {
  UniqueFd folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (folder) return folder;
  if (errno == ESRCH) return std::nullopt;
  if (errno != ENOENT) return std::unexpected(systemError(path));
  // Without a mounted proc file system every process would seem to have ended.
  if (::access((procFolder + "/stat").c_str(), F_OK) != 0) {
    return std::unexpected(systemError(procFolder + "/stat"));
  }
  return std::nullopt;
}

Error inFile(Error error, const std::string& path) {
  error.context = path + ": " + error.context;
  return error;
}

// Reads a process's record from its folder; std::nullopt if it has ended or is a thread.
Result<std::optional<KernelProcess>> readProcess(int folder, ProcessId process,
                                                 const std::string& path) {
  const auto statText = readProcessFile(folder, "stat", path);
  if (!statText) return std::unexpected(statText.error());
  const auto statusText = readProcessFile(folder, "status", path);
  if (!statusText) return std::unexpected(statusText.error());
  if (!*statText || !*statusText) return std::nullopt;

  auto stat = parseProcessStat(**statText);
  if (!stat) return std::unexpected(inFile(std::move(stat).error(), path));
  const auto status = parseProcessStatus(**statusText);
  if (!status) return std::unexpected(inFile(status.error(), path));
  // The kernel also has folders for thread numbers, which it does not list.
  if (status->threadGroup != process) return std::nullopt;
  return KernelProcess{stat->parent, status->realUser, status->effectiveUser,
                       std::move(stat->command)};
}

// The start of the system in seconds, as the difference of two clocks, from which the kernel
// computes it too. std::nullopt if it is too near to the next or the previous second.
std::optional<std::int64_t> bootTimeByClocks() {
  using std::chrono::nanoseconds;
  const auto read = [](clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
  };
  const nanoseconds before = read(CLOCK_BOOTTIME);
  const nanoseconds wall = read(CLOCK_REALTIME);
  const nanoseconds after = read(CLOCK_BOOTTIME);
  const auto earliest = std::chrono::floor<std::chrono::seconds>(wall - after);
  const auto latest = std::chrono::floor<std::chrono::seconds>(wall - before);
  if (earliest != latest) return std::nullopt;
  return earliest.count();
}

}  // namespace

LinuxSystemInformation::LinuxSystemInformation(const PlatformConfiguration& configuration,
                                               std::string procFolder)
    : kernelRelease_(configuration.kernelRelease),
      osVersion_(configuration.osVersion),
      procFolder_(std::move(procFolder)) {}

Result<std::int32_t> LinuxSystemInformation::gestalt(std::string_view selector) const {
  return gestaltOfVersion(osVersion_, selector);
}

Result<std::optional<KernelProcess>> LinuxSystemInformation::kernelProcess(
    ProcessId process) const {
  if (process <= 0) return std::nullopt;
  const std::string path = procFolder_ + "/" + std::to_string(process);
  const auto folder = openProcessFolder(procFolder_, path);
  if (!folder) return std::unexpected(folder.error());
  if (!*folder) return std::nullopt;
  return readProcess((*folder)->get(), process, path);
}

std::optional<std::string> LinuxSystemInformation::processPath(ProcessId process) const {
  if (process <= 0) return std::nullopt;
  const std::string path = procFolder_ + "/" + std::to_string(process);
  const auto folder = openProcessFolder(procFolder_, path);
  if (!folder || !*folder) return std::nullopt;
  const auto record = readProcess((*folder)->get(), process, path);
  if (!record || !*record) return std::nullopt;
  // Read it through the folder, since another process may have the number by now.
  auto executable =
      executablePathOfLink("/proc/self/fd/" + std::to_string((*folder)->get()) + "/exe");
  if (!executable) return std::nullopt;
  return *std::move(executable);
}

std::optional<UserIdentity> LinuxSystemInformation::identityForPosixId(UserId user) const {
  return lookUpUser(user, ::getpwuid_r);
}

Result<std::int64_t> LinuxSystemInformation::bootTime() const {
  // Each lookup of an endpoint needs the boot time, and to produce the file the kernel sums up the
  // work of every processor and every interrupt.
  const auto byClocks = bootTimeByClocks();
  if (byClocks && *byClocks == confirmedBootTime_) return *byClocks;
  const std::string path = procFolder_ + "/stat";
  const UniqueFd descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!descriptor) return std::unexpected(systemError(path));
  const auto text = readAtMost(descriptor.get(), kMaximumSystemStatBytes, path);
  if (!text) return std::unexpected(text.error());
  const auto seconds = parseBootTime(*text);
  if (!seconds) return std::unexpected(inFile(seconds.error(), path));
  if (byClocks == *seconds) confirmedBootTime_ = *seconds;
  return *seconds;
}

}  // namespace platform
