#include "Platform/Linux/CodeSigning/FileFact.h"

#include <algorithm>
#include <cerrno>
#include <tuple>
#include <utility>

#include <fcntl.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {
namespace {

auto placeOf(const struct stat& status) {
  return std::tuple(status.st_dev, status.st_ino, status.st_uid, status.st_mode);
}

auto contentsOf(const struct stat& status) {
  return std::tuple(status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                    status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
}

WallTime timeOf(const timespec& time) {
  return WallTime(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

// Every path begins at the root folder, which nothing else can replace. fstat() of a descriptor
// costs half as much as lstat() of a path.
int currentStatus(const std::string& path, struct stat& status) {
  static const UniqueFd root(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
  return path == "/" && root ? ::fstat(root.get(), &status) : ::lstat(path.c_str(), &status);
}

}  // namespace

bool FileFact::stillHolds() const {
  struct stat now{};
  if (currentStatus(path, now) != 0) return false;
  return covers == Covers::kContents ? isSameState(status, now) : placeOf(status) == placeOf(now);
}

bool isSameState(const struct stat& one, const struct stat& other) {
  return placeOf(one) == placeOf(other) && contentsOf(one) == contentsOf(other);
}

bool changedRecently(const struct stat& status, WallTime now) {
  // Only the kernel sets this time, at every change. The time of the content's change is what
  // somebody has set, and may lie in the future. The clock may have been set back since, so a
  // change in the future proves nothing either.
  return now - timeOf(status.st_ctim) < kSettledAfter;
}

CodeSigningResult<struct stat> fileStatus(const std::string& path) {
  struct stat status{};
  if (path.find('\0') != path.npos) return std::unexpected(failureOfSystemCall(path, EINVAL));
  if (::lstat(path.c_str(), &status) != 0) {
    return std::unexpected(failureOfSystemCall(path, errno));
  }
  return status;
}

std::unexpected<CodeSigningFailure> changedMeanwhile(std::string reason) {
  return refuse(kErrnoStatusBase + EAGAIN, std::move(reason));
}

CodeSigningFailure failureOfCheck(CodeSigningFailure failure, const FileFacts& facts,
                                  const std::string& path) {
  if (verdictOf(failure) == CodeVerdict::kUnknown ||
      std::ranges::all_of(facts, &FileFact::stillHolds)) {
    return failure;
  }
  return changedMeanwhile(path + ": was changed while it was checked").error();
}

CodeSigningFailure failureOfOpening(const std::string& path, const Error& error) {
  if (error.code == ErrorCode::kInvalid || error.osError == 0) {
    return {errSecCSBadObjectFormat, describe(error)};
  }
  return failureOfSystemCall(path, error.osError);
}

CodeSigningFailure failureOfSystemCall(const std::string& path, int errorNumber) {
  return {kErrnoStatusBase + errorNumber, describe(Error{ErrorCode::kSystem, errorNumber, path})};
}

}  // namespace platform
