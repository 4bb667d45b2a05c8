#include "Platform/Linux/Files/AttributeCopy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include <linux/limits.h>
#include <linux/xattr.h>
#include <sys/xattr.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

bool isComputed(std::string_view name) {
  constexpr std::array<std::string_view, 3> kComputed{XATTR_NAME_IMA, XATTR_NAME_EVM,
                                                      XATTR_NAME_SELINUX};
  return std::ranges::find(kComputed, name) != kComputed.end();
}

std::unexpected<Error> attributeFailure(const std::string& path, std::string_view name) {
  return std::unexpected(
      systemError(path + ": its attribute " + std::string(name), errorCodeOf(errno)));
}

}  // namespace

Result<void> copyExtendedAttributes(int from, int to, const std::string& path) {
  std::array<char, XATTR_LIST_MAX> names;
  const ssize_t size = ::flistxattr(from, names.data(), names.size());
  if (size < 0 && errno == ENOTSUP) return {};
  if (size < 0) return attributeFailure(path, "names");
  std::vector<char> value(XATTR_SIZE_MAX);
  for (const char* name = names.data(); name < names.data() + size; name += std::strlen(name) + 1) {
    if (isComputed(name)) continue;
    const ssize_t bytes = ::fgetxattr(from, name, value.data(), value.size());
    if (bytes < 0) return attributeFailure(path, name);
    if (::fsetxattr(to, name, value.data(), static_cast<std::size_t>(bytes), 0) != 0) {
      return attributeFailure(path, name);
    }
  }
  return {};
}

}  // namespace platform
