#include "JobHost/Definitions/JobAccount.h"

#include <cerrno>
#include <cstddef>
#include <utility>

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Error;
using platform::ErrorCode;
using platform::Result;

constexpr std::size_t kFirstBufferBytes = 1024;
constexpr std::size_t kMaximumBufferBytes = 1024 * 1024;
constexpr int kFirstGroups = 64;
constexpr int kMaximumGroups = 65536;  // the kernel's

// Calls getpwnam_r() and its like with as large a buffer as the entry needs.
template <typename Entry, typename Lookup, typename Take>
Result<void> lookUp(const std::string& what, Lookup lookup, Take take) {
  std::vector<char> buffer(kFirstBufferBytes);
  for (;;) {
    Entry entry{};
    Entry* found = nullptr;
    const int error = lookup(&entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE && buffer.size() < kMaximumBufferBytes) {
      buffer.resize(2 * buffer.size());
      continue;
    }
    if (found) {
      take(entry);
      return {};
    }
    // Some name services report an unknown name as one of these errors.
    if (error == 0 || error == ENOENT || error == ESRCH) {
      return std::unexpected(Error{ErrorCode::kNotFound, 0, what + " does not exist"});
    }
    return std::unexpected(Error{ErrorCode::kSystem, error, "looking up " + what});
  }
}

std::string textOrEmpty(const char* text) { return text ? text : ""; }

Result<std::vector<gid_t>> groupsOf(const JobAccount& account) {
  int count = kFirstGroups;
  for (;;) {
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgrouplist(account.name.c_str(), account.group, groups.data(), &count) >= 0) {
      groups.resize(static_cast<std::size_t>(count));
      return groups;
    }
    if (count > kMaximumGroups) {
      return std::unexpected(
          Error{ErrorCode::kSystem, 0,
                fmt::format("user {}: expected at most {} groups, found {}",
                            platform::quotedInMessage(account.name), kMaximumGroups, count)});
    }
  }
}

}  // namespace

Result<JobAccount> lookUpAccount(const std::optional<std::string>& userName,
                                 const std::optional<std::string>& groupName) {
  JobAccount account;
  const std::string who = userName ? "the user " + platform::quotedInMessage(*userName)
                                   : fmt::format("the user with the number {}", ::geteuid());
  const auto user = lookUp<passwd>(
      who,
      [&](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return userName ? ::getpwnam_r(userName->c_str(), entry, buffer, size, found)
                        : ::getpwuid_r(::geteuid(), entry, buffer, size, found);
      },
      [&](const passwd& entry) {
        account.user = entry.pw_uid;
        account.group = entry.pw_gid;
        account.name = textOrEmpty(entry.pw_name);
        account.home = textOrEmpty(entry.pw_dir);
        account.shell = textOrEmpty(entry.pw_shell);
      });
  if (!user) return std::unexpected(user.error());
  if (groupName) {
    const auto group = lookUp<::group>(
        "the group " + platform::quotedInMessage(*groupName),
        [&](::group* entry, char* buffer, std::size_t size, ::group** found) {
          return ::getgrnam_r(groupName->c_str(), entry, buffer, size, found);
        },
        [&](const ::group& entry) { account.group = entry.gr_gid; });
    if (!group) return std::unexpected(group.error());
  }
  auto groups = groupsOf(account);
  if (!groups) return std::unexpected(std::move(groups.error()));
  account.groups = *std::move(groups);
  return account;
}

Result<uid_t> lookUpUser(const std::string& userName) {
  uid_t user = 0;
  const auto found = lookUp<passwd>(
      "the user " + platform::quotedInMessage(userName),
      [&](passwd* entry, char* buffer, std::size_t size, passwd** result) {
        return ::getpwnam_r(userName.c_str(), entry, buffer, size, result);
      },
      [&](const passwd& entry) { user = entry.pw_uid; });
  if (!found) return std::unexpected(found.error());
  return user;
}

Result<void> checkAccount(const JobDefinition& job) {
  // Check one after the other, because the text names the key.
  const auto check = [&](const char* key, const std::optional<std::string>& user,
                         const std::optional<std::string>& group) -> Result<void> {
    const auto account = lookUpAccount(user, group);
    if (account) return {};
    Error error = account.error();
    if (error.code == ErrorCode::kNotFound) error.code = ErrorCode::kInvalid;
    error.context.insert(
        0, fmt::format("job {}: key \"{}\": ", platform::quotedInMessage(job.label), key));
    return std::unexpected(std::move(error));
  };
  if (job.userName) {
    if (auto known = check("UserName", job.userName, {}); !known) return known;
  }
  return job.groupName ? check("GroupName", job.userName, job.groupName) : Result<void>();
}

}  // namespace jobhost
