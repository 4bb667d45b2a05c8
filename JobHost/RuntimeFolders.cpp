#include "JobHost/RuntimeFolders.h"

#include <cerrno>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "JobHost/State/StateRecord.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;

constexpr mode_t kFolderMode = 0755;
constexpr char kBootIdFile[] = "/proc/sys/kernel/random/boot_id";
constexpr std::size_t kMaximumBootIdBytes = 64;
constexpr char kPidNamespace[] = "/proc/self/ns/pid";
constexpr std::size_t kMaximumStatBytes = 1024;

// Stricter than makeParentFolders(): the jobs depend on what these folders let others do.
Result<void> makeFolder(const std::string& path) {
  if (::mkdir(path.c_str(), kFolderMode) == 0) {
    // The umask may have cleared bits of the mode.
    if (::chmod(path.c_str(), kFolderMode) == 0) return {};
  } else if (errno == EEXIST) {
    return {};
  }
  return std::unexpected(platform::systemError("making the folder " + path));
}

Result<void> checkFolder(const std::string& path) {
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return std::unexpected(platform::systemError(path));
  const auto refuse = [&](std::string_view why) {
    return std::unexpected(
        Error{ErrorCode::kDenied, 0, fmt::format("{}: not trusted: {}", path, why)});
  };
  if (!S_ISDIR(status.st_mode)) return refuse("expected a folder itself, no link to one");
  if (status.st_uid != ::geteuid()) {
    return refuse(fmt::format("it belongs to uid {}, expected uid {}", status.st_uid, ::geteuid()));
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return refuse(
        fmt::format("others than its owner can write it (mode {:04o})", status.st_mode & 07777u));
  }
  return {};
}

// The kernel reuses the inodes of namespaces, so this tells one from the next. 0 if /proc hides it.
std::uint64_t startOfProcessOne() {
  const auto file = platform::openRegularFile("/proc/1/stat");
  if (!file) return 0;
  const auto text = platform::readAtMost(file->get(), kMaximumStatBytes, "/proc/1/stat");
  return text ? startTicksIn(text->data(), text->size()) : 0;
}

}  // namespace

Result<RuntimeFolders> makeRuntimeFolders(const std::string& root) {
  RuntimeFolders folders{platform::pathBelowRoot(root, "run/vantor"),
                         platform::pathBelowRoot(root, "run/vantor/mach"),
                         platform::pathBelowRoot(root, "run/vantor/output")};
  if (auto made = makeFolder(platform::pathBelowRoot(root, "run")); !made)
    return std::unexpected(made.error());
  for (const std::string& folder : {folders.runtime, folders.mach, folders.output}) {
    if (auto made = makeFolder(folder); !made) return std::unexpected(made.error());
    if (auto checked = checkFolder(folder); !checked) return std::unexpected(checked.error());
  }
  return folders;
}

Result<std::string> readBootId() {
  const auto file = platform::openRegularFile(kBootIdFile);
  if (!file) return std::unexpected(file.error());
  auto text = platform::readAtMost(file->get(), kMaximumBootIdBytes, kBootIdFile);
  if (!text) return text;
  while (!text->empty() && text->back() == '\n') text->pop_back();
  if (text->empty()) {
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0, std::string(kBootIdFile) + ": it is empty"});
  }
  struct stat numbers{};
  if (::stat(kPidNamespace, &numbers) != 0) {
    return std::unexpected(platform::systemError(kPidNamespace));
  }
  return fmt::format("{}/{}.{}", *text, numbers.st_ino, startOfProcessOne());
}

}  // namespace jobhost
