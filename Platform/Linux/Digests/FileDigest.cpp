#include "Platform/Digests/FileDigest.h"

#include <algorithm>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include "Platform/Linux/Digests/ContentHash.h"
#include "Platform/Linux/Files/FilePieces.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

// Rejects the kernel's files, some of which have no end.
Result<RegularFile> openForDigest(const std::string& path) {
  const auto found = findFile(path, FinalLink::kFollow);
  if (!found) return std::unexpected(found.error());
  struct statfs system{};
  if (::fstatfs(found->handle.get(), &system) != 0) {
    return std::unexpected(systemError(path, errorCodeOf(errno)));
  }
  if (S_ISREG(found->status.st_mode) && system.f_type == PROC_SUPER_MAGIC) {
    return invalid(path + ": is the kernel's");
  }
  return openFoundFile(*found, path);
}

// The size of the next part to be read: whole pieces, as long as there is more.
std::uint64_t partBytes(std::uint64_t left, std::uint64_t wanted) {
  const std::uint64_t pieces = wanted / kPieceBytes + (wanted % kPieceBytes != 0 ? 1 : 0);
  return pieces > left / kPieceBytes ? left : pieces * kPieceBytes;
}

}  // namespace

struct FileDigest::State {
  UniqueFd file;
  std::uint64_t size;
  std::uint64_t done = 0;
  ContentHash hash;
};

FileDigest::FileDigest(std::unique_ptr<State> state) : state_(std::move(state)) {}
FileDigest::FileDigest(FileDigest&& other) noexcept = default;
FileDigest& FileDigest::operator=(FileDigest&& other) noexcept = default;
FileDigest::~FileDigest() = default;

Result<FileDigest> FileDigest::open(const std::string& path) {
  auto opened = openForDigest(path);
  if (!opened) return std::unexpected(std::move(opened.error()));
  auto hash = ContentHash::create(EVP_sha256(), path);
  if (!hash) return std::unexpected(std::move(hash.error()));
  ::posix_fadvise(opened->get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  const auto size = static_cast<std::uint64_t>(opened->status.st_size);
  return FileDigest(
      std::make_unique<State>(State{std::move(opened->file), size, 0, *std::move(hash)}));
}

Result<bool> FileDigest::readMore(std::uint64_t bytes) {
  State& state = *state_;
  const std::uint64_t part = partBytes(state.size - state.done, std::max<std::uint64_t>(bytes, 1));
  if (auto added = state.hash.addFrom(state.file.get(), state.done, part); !added) {
    return std::unexpected(std::move(added.error()));
  }
  state.done += part;
  return state.done == state.size;
}

Result<std::optional<Sha256>> FileDigest::finish() {
  if (state_->size == 0) return std::nullopt;
  const auto digest = state_->hash.finish();
  if (!digest) return std::unexpected(digest.error());
  Sha256 sha256{};
  std::ranges::copy(*digest, sha256.begin());
  return sha256;
}

}  // namespace platform
