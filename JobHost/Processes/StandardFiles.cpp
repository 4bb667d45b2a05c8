#include "JobHost/Processes/StandardFiles.h"

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/Processes/FileSystemIdentity.h"
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

constexpr mode_t kNewFileMode = 0644;
constexpr std::string_view kNullFile = "/dev/null";

// Opens without waiting for a pipe's other end. The process then gets the file as if it had opened
// it itself.
Result<UniqueFd> openStandardFile(std::string_view key, const std::string& path, int flags) {
  const std::string what = fmt::format("key \"{}\": opening {}", key, platform::quotedWhole(path));
  const auto openWith = [&](int with) {
    return retryOnInterrupt([&] {
      return ::open(path.c_str(), with | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kNewFileMode);
    });
  };
  // With O_CREAT, a file system that is frozen holds up the host, even if the file exists.
  UniqueFd file(openWith(flags & ~O_CREAT));
  if (!file && errno == ENOENT && (flags & O_CREAT) != 0) file.reset(openWith(flags));
  if (!file) return std::unexpected(systemError(what));
  struct stat status{};
  if (::fstat(file.get(), &status) != 0) return std::unexpected(systemError(what));
  if (S_ISDIR(status.st_mode)) return std::unexpected(Error{ErrorCode::kSystem, EISDIR, what});
  const int now = ::fcntl(file.get(), F_GETFL);
  if (now < 0 || ::fcntl(file.get(), F_SETFL, now & ~O_NONBLOCK) != 0) {
    return std::unexpected(systemError(what));
  }
  return file;
}

// Both files are one, so that their lines keep their order. Without a descriptor the process gets
// /dev/null.
void openOutput(const JobDefinition& job, const JobAccount& account, const JobOutput& output,
                std::array<UniqueFd, 3>& opened) {
  if (!output || (opened[STDOUT_FILENO] && opened[STDERR_FILENO])) return;
  UniqueFd file = output(job, account);
  if (!file) return;
  if (!opened[STDOUT_FILENO] && !opened[STDERR_FILENO])
    opened[STDERR_FILENO].reset(::fcntl(file.get(), F_DUPFD_CLOEXEC, 0));
  UniqueFd& place = opened[STDOUT_FILENO] ? opened[STDERR_FILENO] : opened[STDOUT_FILENO];
  place = std::move(file);
}

}  // namespace

Result<std::array<UniqueFd, 3>> openStandardFiles(const JobDefinition& job,
                                                  const JobAccount& account,
                                                  const JobOutput& output) {
  struct StandardFile {
    std::string_view key;
    const std::string& path;
    int flags;
  };
  const StandardFile files[] = {
      {"StandardInPath", job.standardInPath, O_RDONLY},
      {"StandardOutPath", job.standardOutPath, O_WRONLY | O_CREAT | O_APPEND},
      {"StandardErrorPath", job.standardErrorPath, O_WRONLY | O_CREAT | O_APPEND},
  };
  std::array<UniqueFd, 3> opened;
  // With the host's permissions, a link placed by the job's user could lead to any file.
  std::optional<FileSystemIdentity> identity;
  for (std::size_t i = 0; i < opened.size(); ++i) {
    const auto& [key, path, flags] = files[i];
    if (path == kNullFile) continue;
    if (!identity && ::geteuid() == 0 && account.user != 0) {
      auto assumed = FileSystemIdentity::assume(account);
      if (!assumed) return std::unexpected(std::move(assumed.error()));
      identity.emplace(*std::move(assumed));
    }
    auto file = openStandardFile(key, path, flags);
    if (!file) return std::unexpected(std::move(file.error()));
    opened[i] = *std::move(file);
  }
  identity.reset();
  openOutput(job, account, output, opened);
  return opened;
}

bool hasStreamToJournal(const std::array<UniqueFd, 3>& files) {
  const auto isSocket = [](const UniqueFd& file) {
    struct stat status{};
    return file && ::fstat(file.get(), &status) == 0 && S_ISSOCK(status.st_mode);
  };
  return isSocket(files[STDOUT_FILENO]) || isSocket(files[STDERR_FILENO]);
}

}  // namespace jobhost
