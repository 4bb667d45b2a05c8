#include "Platform/FileDigest.h"

#include <algorithm>
#include <memory>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "Platform/Linux/OpenSslHandles.h"
#include "Platform/Linux/SystemCall.h"
#include "Platform/Linux/UniqueFd.h"

namespace platform {

namespace {

constexpr std::size_t kPieceBytes = 256 * 1024;

std::unexpected<Error> failure(const std::string& path) {
  const bool isMissing = errno == ENOENT || errno == ENOTDIR;
  return std::unexpected(systemError(path, isMissing         ? ErrorCode::kNotFound
                                           : errno == EACCES ? ErrorCode::kDenied
                                                             : ErrorCode::kSystem));
}

std::unexpected<Error> invalid(const std::string& path, const char* what) {
  return std::unexpected(Error{ErrorCode::kInvalid, 0, path + ": " + what});
}

// Looked at before it is opened: to open some devices is to set them going.
Result<UniqueFd> openRegular(const std::string& path) {
  const UniqueFd found(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!found) return failure(path);
  struct stat status{};
  struct statfs system{};
  if (::fstat(found.get(), &status) != 0 || ::fstatfs(found.get(), &system) != 0) {
    return failure(path);
  }
  if (!S_ISREG(status.st_mode)) return invalid(path, "is not a regular file");
  if (system.f_type == PROC_SUPER_MAGIC) return invalid(path, "is the kernel's");
  UniqueFd file(::open(fmt::format("/proc/self/fd/{}", found.get()).c_str(),
                       O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return failure(path);
  return file;
}

std::unexpected<Error> noDigest(const std::string& path) {
  return std::unexpected(
      Error{ErrorCode::kExhausted, 0, path + ": can't be hashed: " + takeOpenSslError()});
}

}  // namespace

Result<std::optional<Sha256>> sha256OfFile(const std::string& path, const std::stop_token& stop) {
  const auto file = openRegular(path);
  if (!file) return std::unexpected(file.error());
  struct stat status{};
  if (::fstat(file->get(), &status) != 0) return failure(path);
  auto left = static_cast<std::uint64_t>(status.st_size);
  if (left == 0) return std::nullopt;
  const DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    return noDigest(path);
  }
  ::posix_fadvise(file->get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(kPieceBytes);
  while (left > 0) {
    if (stop.stop_requested()) return invalid(path, "is not wanted any more");
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(left, kPieceBytes));
    const ssize_t count =
        retryOnInterrupt([&] { return ::read(file->get(), piece.get(), wanted); });
    if (count < 0) return failure(path);
    if (count == 0) return invalid(path, "became shorter while it was read");
    if (EVP_DigestUpdate(context.get(), piece.get(), static_cast<std::size_t>(count)) != 1) {
      return noDigest(path);
    }
    left -= static_cast<std::uint64_t>(count);
  }
  Sha256 digest;
  if (EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1) return noDigest(path);
  return digest;
}

}  // namespace platform
