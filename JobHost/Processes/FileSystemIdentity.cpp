#include "JobHost/Processes/FileSystemIdentity.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Result;
using platform::systemError;

// No user and no group. Setting this id changes nothing, and returns the present one. The calls
// report failure in no other way.
constexpr long kNoId = -1;

bool setGroups(const std::vector<gid_t>& groups) {
  return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

bool setFileSystemGroup(gid_t group) {
  ::syscall(SYS_setfsgid, group);
  return ::syscall(SYS_setfsgid, kNoId) == static_cast<long>(group);
}

// Leaving root also drops root's capabilities for files, and returning restores them.
bool setFileSystemUser(uid_t user) {
  ::syscall(SYS_setfsuid, user);
  return ::syscall(SYS_setfsuid, kNoId) == static_cast<long>(user);
}

}  // namespace

Result<FileSystemIdentity> FileSystemIdentity::assume(const JobAccount& account) {
  FileSystemIdentity identity;
  const std::string what = "taking the file rights of " + platform::quotedInMessage(account.name);
  identity.user_ = static_cast<uid_t>(::syscall(SYS_setfsuid, kNoId));
  identity.group_ = static_cast<gid_t>(::syscall(SYS_setfsgid, kNoId));
  const int count = ::getgroups(0, nullptr);
  if (count < 0) return std::unexpected(systemError(what));
  identity.groups_.resize(static_cast<std::size_t>(count));
  if (::getgroups(count, identity.groups_.data()) != count) {
    return std::unexpected(systemError(what));
  }
  if (!setGroups(account.groups)) return std::unexpected(systemError(what));
  identity.isAssumed_ = true;  // From here on the destructor restores.
  // The user comes last: without root's capabilities the others can't be changed.
  if (!setFileSystemGroup(account.group) || !setFileSystemUser(account.user)) {
    return std::unexpected(platform::Error{platform::ErrorCode::kSystem, EPERM, what});
  }
  return identity;
}

FileSystemIdentity::FileSystemIdentity(FileSystemIdentity&& other) noexcept
    : isAssumed_(std::exchange(other.isAssumed_, false)),
      user_(other.user_),
      group_(other.group_),
      groups_(std::move(other.groups_)) {}

FileSystemIdentity::~FileSystemIdentity() {
  if (isAssumed_) restore();
}

void FileSystemIdentity::restore() {
  if (!setFileSystemUser(user_) || !setFileSystemGroup(group_) || !setGroups(groups_)) std::abort();
}

}  // namespace jobhost
