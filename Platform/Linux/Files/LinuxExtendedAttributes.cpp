#include "Platform/Linux/Files/LinuxExtendedAttributes.h"

#include <cerrno>

#include <sys/xattr.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

namespace {

constexpr char kOrigin[] = "user.xdg.origin.url";

Result<Data> read(const std::string& path, const std::string& name, std::size_t bufferSize) {
  Data bytes(bufferSize);
  const ssize_t size = ::getxattr(path.c_str(), name.c_str(), bytes.data(), bytes.size());
  if (size < 0) return std::unexpected(systemError(path + ": " + name));
  bytes.resize(static_cast<std::size_t>(size));
  return bytes;
}

}  // namespace

Result<Data> LinuxExtendedAttributes::getxattr(const std::string& path, std::string_view name,
                                               std::size_t bufferSize) {
  auto bytes = read(path, "user." + std::string(name), bufferSize);
  if (bytes || name != kWhereFromsAttribute || bytes.error().osError != ENODATA) return bytes;
  const auto origin = read(path, kOrigin, bufferSize);
  if (!origin) return origin.error().osError == ERANGE ? origin : bytes;
  const std::string text(origin->begin(), origin->end());
  auto list = writePropertyList(Array{Value(text)}, PropertyListFormat::kBinary);
  if (!list || text.contains('\0')) return bytes;  // Not a text.
  return std::move(*list);
}

}  // namespace platform
