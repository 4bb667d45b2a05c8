#include "Platform/Linux/CodeSigning/TrustedPlace.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include <fmt/format.h>

namespace platform {
namespace {

constexpr std::string_view kWhere =
    "so that what was checked need not be what runs; see to it that only root and the owner of "
    "the platform's root can write it (chown, chmod go-w)";

bool isPlain(std::string_view path) {
  if (path.empty() || path.front() != '/') return false;
  for (std::size_t at = 1; at <= path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string_view name = path.substr(at, end - at);
    if (name.empty() || name == "." || name == "..") return path == "/";
    at = end + 1;
  }
  return true;
}

std::unexpected<CodeSigningFailure> refusePlace(int errorNumber, std::string reason) {
  return std::unexpected(CodeSigningFailure{kErrnoStatusBase + errorNumber, std::move(reason)});
}

}  // namespace

CodeSigningResult<void> TrustedPlace::checkFile(const std::string& path,
                                                const struct stat& status) const {
  if (!owner_) return {};
  const char* const kind = S_ISDIR(status.st_mode) ? "the folder" : "the file";
  if (status.st_uid != 0 && status.st_uid != *owner_) {
    return refusePlace(
        EPERM, fmt::format("{} {} belongs to uid {}, {}", kind, path, status.st_uid, kWhere));
  }
  const bool othersWrite = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  if (othersWrite && !S_ISLNK(status.st_mode)) {  // A link's mode means nothing.
    return refusePlace(EPERM, fmt::format("{} {} can be written by others (mode {:04o}), {}", kind,
                                          path, status.st_mode & 07777u, kWhere));
  }
  return {};
}

CodeSigningResult<void> TrustedPlace::check(const std::string& path, FileFacts& facts) const {
  if (!isPlain(path)) {
    return std::unexpected(CodeSigningFailure{
        errSecCSBadObjectFormat, path + ": is not an absolute path without \".\" and \"..\""});
  }
  std::size_t end = 0;  // of the part of the path that is checked
  do {
    const bool last = end == path.size();
    std::string part = end == 0 ? "/" : path.substr(0, end);
    const auto status = fileStatus(part);
    if (!status) return std::unexpected(status.error());
    if (S_ISLNK(status->st_mode)) {
      return refusePlace(ELOOP, part + ": is a symbolic link; name the real path");
    }
    const bool protectsNames = !last && S_ISDIR(status->st_mode) && (status->st_mode & S_ISVTX);
    struct stat judged = *status;
    if (protectsNames) judged.st_mode &= ~static_cast<mode_t>(S_IWGRP | S_IWOTH);
    if (auto trusted = checkFile(part, judged); !trusted) return trusted;
    facts.push_back(
        {std::move(part), last ? FileFact::Covers::kContents : FileFact::Covers::kPlace, *status});
    if (last) return {};
    end = path == "/" ? path.size() : std::min(path.find('/', end + 1), path.size());
  } while (true);
}

}  // namespace platform
