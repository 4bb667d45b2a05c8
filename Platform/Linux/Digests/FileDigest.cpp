#include "Platform/Digests/FileDigest.h"

#include <algorithm>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

namespace {

constexpr std::size_t kFilePieceBytes = 256 * 1024;

std::unexpected<Error> fileFailure(const std::string& path) {
  return std::unexpected(systemError(path, errorCodeOf(errno)));
}

std::unexpected<Error> unfit(const std::string& path, const char* what) {
  return std::unexpected(Error{ErrorCode::kInvalid, 0, path + ": " + what});
}

// Checks the type before it opens the file, because opening a device can set it going.
// Unlike openRegularFile(), it follows links and rejects the kernel's files.
Result<UniqueFd> openRegular(const std::string& path) {
  const UniqueFd found(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!found) return fileFailure(path);
  struct stat status{};
  struct statfs system{};
  if (::fstat(found.get(), &status) != 0 || ::fstatfs(found.get(), &system) != 0) {
    return fileFailure(path);
  }
  if (!S_ISREG(status.st_mode)) return unfit(path, "is not a regular file");
  if (system.f_type == PROC_SUPER_MAGIC) return unfit(path, "is the kernel's");
  UniqueFd file(
      ::open(pathOfDescriptor(found).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return fileFailure(path);
  return file;
}

std::unexpected<Error> noDigest(const std::string& path) {
  return std::unexpected(
      Error{ErrorCode::kExhausted, 0, path + ": can't be hashed: " + takeOpenSslError()});
}

}  // namespace

struct FileDigest::State {
  std::string path;
  UniqueFd file;
  std::uint64_t left;
  DigestContext context;  // null for an empty file
};

FileDigest::FileDigest(std::unique_ptr<State> state) : state_(std::move(state)) {}
FileDigest::FileDigest(FileDigest&& other) noexcept = default;
FileDigest& FileDigest::operator=(FileDigest&& other) noexcept = default;
FileDigest::~FileDigest() = default;

Result<FileDigest> FileDigest::open(const std::string& path) {
  auto file = openRegular(path);
  if (!file) return std::unexpected(std::move(file.error()));
  struct stat status{};
  if (::fstat(file->get(), &status) != 0) return fileFailure(path);
  const auto size = static_cast<std::uint64_t>(status.st_size);
  DigestContext context(size > 0 ? EVP_MD_CTX_new() : nullptr);
  if (size > 0) {
    if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
      return noDigest(path);
    }
    ::posix_fadvise(file->get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  }
  return FileDigest(
      std::make_unique<State>(State{path, std::move(*file), size, std::move(context)}));
}

Result<bool> FileDigest::readMore(std::uint64_t bytes) {
  State& state = *state_;
  const std::uint64_t end = state.left - std::min(state.left, bytes);
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(kFilePieceBytes);
  while (state.left > end) {
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(state.left, kFilePieceBytes));
    const ssize_t count =
        retryOnInterrupt([&] { return ::read(state.file.get(), piece.get(), wanted); });
    if (count < 0) return fileFailure(state.path);
    if (count == 0) return unfit(state.path, "became shorter while it was read");
    if (EVP_DigestUpdate(state.context.get(), piece.get(), static_cast<std::size_t>(count)) != 1) {
      return noDigest(state.path);
    }
    state.left -= std::min(state.left, static_cast<std::uint64_t>(count));
  }
  return state.left == 0;
}

Result<std::optional<Sha256>> FileDigest::finish() {
  if (!state_->context) return std::nullopt;
  Sha256 digest;
  if (EVP_DigestFinal_ex(state_->context.get(), digest.data(), nullptr) != 1) {
    return noDigest(state_->path);
  }
  return digest;
}

}  // namespace platform
