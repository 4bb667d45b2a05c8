#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"

#include <cerrno>
#include <utility>

#include "Platform/SystemFacts/Gestalt.h"

namespace platform {

void FakeSystemInformation::setRelease(std::string release, OperatingSystemVersion version) {
  release_ = std::move(release);
  version_ = version;
}

void FakeSystemInformation::setGestalt(std::string selector, std::int32_t value) {
  failingSelectors_.erase(selector);
  gestalt_.insert_or_assign(std::move(selector), value);
}

void FakeSystemInformation::failGestalt(std::string selector) {
  failingSelectors_.insert(std::move(selector));
}

void FakeSystemInformation::addProcess(ProcessId process, KernelProcess record,
                                       std::optional<std::string> path) {
  processes_.insert_or_assign(process, Process{std::move(record), std::move(path)});
}

void FakeSystemInformation::removeProcess(ProcessId process) { processes_.erase(process); }

void FakeSystemInformation::makeUnreadable(ProcessId process) {
  processes_[process].readable = false;
}

void FakeSystemInformation::addUser(UserId user, UserIdentity identity) {
  users_.insert_or_assign(user, std::move(identity));
}

void FakeSystemInformation::setBootTime(Result<std::int64_t> bootTime) {
  bootTime_ = std::move(bootTime);
}

Result<std::int32_t> FakeSystemInformation::gestalt(std::string_view selector) const {
  if (failingSelectors_.contains(selector)) {
    return std::unexpected(Error{ErrorCode::kSystem, EIO, "the Gestalt service"});
  }
  const auto given = gestalt_.find(selector);
  if (given != gestalt_.end()) return given->second;
  return gestaltOfVersion(version_, selector);
}

Result<std::optional<KernelProcess>> FakeSystemInformation::kernelProcess(ProcessId process) const {
  const auto found = processes_.find(process);
  if (found == processes_.end()) return std::nullopt;
  if (!found->second.readable) {
    return std::unexpected(Error{ErrorCode::kSystem, EACCES, "a process's record"});
  }
  return found->second.record;
}

std::optional<std::string> FakeSystemInformation::processPath(ProcessId process) const {
  const auto found = processes_.find(process);
  if (found == processes_.end() || !found->second.readable) return std::nullopt;
  return found->second.path;
}

std::optional<UserIdentity> FakeSystemInformation::identityForPosixId(UserId user) const {
  const auto found = users_.find(user);
  if (found == users_.end()) return std::nullopt;
  return found->second;
}

}  // namespace platform
