#include "Platform/Digests/FileDigest.h"

#include <algorithm>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/vfs.h>

#include "Platform/Linux/Digests/ContentHash.h"
#include "Platform/Linux/Files/FilePieces.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

// Rejects the kernel's files: some have no end, others less than they report, or change at every
// reading.
Result<FoundFile> findForDigest(const std::string& path) {
  auto found = findFile(path, FinalLink::kFollow);
  if (!found) return found;
  struct statfs system{};
  if (::fstatfs(found->handle.get(), &system) != 0) {
    return std::unexpected(systemError(path, errorCodeOf(errno)));
  }
  const bool isKernels = system.f_type == PROC_SUPER_MAGIC || system.f_type == SYSFS_MAGIC;
  if (S_ISREG(found->status.st_mode) && isKernels) {
    return invalid(path + ": is the kernel's");
  }
  return found;
}

// The size of the next part to be read: whole pieces, as long as there is more.
std::uint64_t partBytes(std::uint64_t left, std::uint64_t wanted) {
  const std::uint64_t pieces = wanted / kPieceBytes + (wanted % kPieceBytes != 0 ? 1 : 0);
  return pieces > left / kPieceBytes ? left : pieces * kPieceBytes;
}

}  // namespace

struct FileDigest::State {
  std::string path;
  FoundFile found;
  UniqueFd file;  // none while another process has a lease on the file
  ContentHash hash;
  std::uint64_t done = 0;
  int pauses = 0;

  std::uint64_t size() const { return static_cast<std::uint64_t>(found.status.st_size); }
  Result<void> openFile();
};

Result<void> FileDigest::State::openFile() {
  auto opened = openFoundFile(found, path);
  if (!opened) return std::unexpected(std::move(opened.error()));
  file = std::move(opened->file);
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  return {};
}

FileDigest::FileDigest(std::unique_ptr<State> state) : state_(std::move(state)) {}
FileDigest::FileDigest(FileDigest&& other) noexcept = default;
FileDigest& FileDigest::operator=(FileDigest&& other) noexcept = default;
FileDigest::~FileDigest() = default;

Result<FileDigest> FileDigest::open(const std::string& path) {
  auto found = findForDigest(path);
  if (!found) return std::unexpected(std::move(found.error()));
  auto hash = ContentHash::create(EVP_sha256(), path);
  if (!hash) return std::unexpected(std::move(hash.error()));
  auto state = std::make_unique<State>(path, *std::move(found), UniqueFd(), *std::move(hash));
  if (auto opened = state->openFile(); !opened && !isHeldByALease(opened.error())) {
    return std::unexpected(std::move(opened.error()));
  }
  return FileDigest(std::move(state));
}

Result<bool> FileDigest::isReady() {
  State& state = *state_;
  if (state.file) return true;
  ::poll(nullptr, 0, static_cast<int>(kLeasePause.count()));
  const auto opened = state.openFile();
  if (opened) return true;
  if (!isHeldByALease(opened.error()) || ++state.pauses >= kMostLeasePauses) {
    return std::unexpected(opened.error());
  }
  return false;
}

Result<bool> FileDigest::readMore(std::uint64_t bytes) {
  State& state = *state_;
  const std::uint64_t part =
      partBytes(state.size() - state.done, std::max<std::uint64_t>(bytes, 1));
  if (auto added = state.hash.addFrom(state.file.get(), state.done, part); !added) {
    return std::unexpected(std::move(added.error()));
  }
  state.done += part;
  return state.done == state.size();
}

Result<std::optional<Sha256>> FileDigest::finish() {
  if (state_->size() == 0) return std::nullopt;
  const auto digest = state_->hash.finish();
  if (!digest) return std::unexpected(digest.error());
  Sha256 sha256{};
  std::ranges::copy(*digest, sha256.begin());
  return sha256;
}

}  // namespace platform
