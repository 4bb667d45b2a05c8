#include "Platform/Linux/NamedConnections/AccountNumbers.h"

#include <cerrno>
#include <cstddef>
#include <vector>

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>

namespace platform {
namespace {

constexpr std::size_t kMaxEntryBytes = std::size_t{1} << 20;

// The entry of `name` by getgrnam_r() or getpwnam_r(), handed to `read`.
template <typename Entry, typename Number, typename Lookup, typename Read>
Result<Number> lookUpAccount(const char* kind, const std::string& name, Lookup lookup, Read read) {
  std::vector<char> buffer(1024);
  Entry entry{};
  Entry* found = nullptr;
  int number = ERANGE;
  while ((number = lookup(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kMaxEntryBytes)
    buffer.resize(buffer.size() * 2);
  if (found != nullptr) return read(*found);
  return std::unexpected(
      Error{ErrorCode::kNotFound, number, fmt::format("there is no {} \"{}\"", kind, name)});
}

}  // namespace

Result<gid_t> groupNumber(const std::string& name) {
  return lookUpAccount<group, gid_t>("group", name, ::getgrnam_r,
                                     [](const group& entry) { return entry.gr_gid; });
}

Result<uid_t> userNumber(const std::string& name) {
  return lookUpAccount<passwd, uid_t>("user", name, ::getpwnam_r,
                                      [](const passwd& entry) { return entry.pw_uid; });
}

}  // namespace platform
