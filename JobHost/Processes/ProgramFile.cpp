#include "JobHost/Processes/ProgramFile.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Digests/ContentHash.h"
#include "Platform/Linux/Files/FileProtection.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::ContentHash;
using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::UniqueFd;
using platform::VerifiedFile;

constexpr std::uint64_t kCopiedAtOnce = 64 * 1024;

std::unexpected<Error> changed(const std::string& path, std::string_view why) {
  return std::unexpected(
      Error{ErrorCode::kChanged, 0,
            fmt::format("the program {} {}; it does not run before it has been verified again",
                        platform::quotedInMessage(path), why)});
}

// The lease makes other processes that open the file for writing wait until this one has closed it.
// Without the permission, or on a file system without leases, there is none. False if the file is
// open for writing already.
bool keepFromWriters(int file) {
  // The default signal for a lease that is in somebody's way would end this process.
  if (::fcntl(file, F_SETSIG, SIGURG) != 0) return true;
  return ::fcntl(file, F_SETLEASE, F_RDLCK) == 0 || errno != EAGAIN;
}

bool isSameFile(const VerifiedFile& verified, const struct stat& status) {
  return status.st_dev == verified.device && status.st_ino == verified.inode &&
         static_cast<std::uint64_t>(status.st_size) == verified.size &&
         status.st_ctim.tv_sec == verified.changedSeconds &&
         status.st_ctim.tv_nsec == verified.changedNanoseconds;
}

bool beginsAsScript(int file) {
  char start[2];
  return ::pread(file, start, sizeof start, 0) == sizeof start && start[0] == '#' &&
         start[1] == '!';
}

Result<ContentHash> newHash(const VerifiedFile& verified, const std::string& path) {
  const EVP_MD* const kind = EVP_get_digestbyname(verified.digestName.c_str());
  if (!kind) return changed(path, "was verified with an unknown digest");
  return ContentHash::create(kind, path);
}

Result<bool> hasDigest(ContentHash& hash, const VerifiedFile& verified) {
  const auto digest = hash.finish();
  if (!digest) return std::unexpected(digest.error());
  return *digest == verified.digest;
}

Result<void> compareDigest(int file, const VerifiedFile& verified, const std::string& path) {
  auto hash = newHash(verified, path);
  if (!hash) return std::unexpected(hash.error());
  if (auto added = hash->addFrom(file, 0, verified.digestedBytes); !added) {
    if (added.error().code != ErrorCode::kInvalid) return added;
    return changed(path, "has become shorter since it was verified");
  }
  const auto same = hasDigest(*hash, verified);
  if (!same) return std::unexpected(same.error());
  if (!*same) return changed(path, "has been changed since it was verified");
  return {};
}

Result<UniqueFd> makeSealable(const std::string& path) {
  // Newer kernels warn without this flag, older ones reject it.
  constexpr unsigned kExecutable = 0x10;  // MFD_EXEC
  constexpr unsigned kFlags = MFD_CLOEXEC | MFD_ALLOW_SEALING;
  const std::string name = path.substr(path.rfind('/') + 1);
  UniqueFd copy(::memfd_create(name.c_str(), kFlags | kExecutable));
  if (!copy && errno == EINVAL) copy.reset(::memfd_create(name.c_str(), kFlags));
  if (!copy) return std::unexpected(platform::systemError("memory for the script " + path));
  return copy;
}

Result<void> writeAll(int file, std::span<const std::uint8_t> bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t written =
        platform::retryOnInterrupt([&] { return ::write(file, bytes.data(), bytes.size()); });
    if (written < 0) return std::unexpected(platform::systemError("copying the script " + path));
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return {};
}

// The verified part of the script, as it is in the file now.
Result<void> copyContent(int from, int to, const VerifiedFile& verified, const std::string& path) {
  auto hash = newHash(verified, path);
  if (!hash) return std::unexpected(hash.error());
  std::vector<std::uint8_t> piece(std::min(kCopiedAtOnce, verified.digestedBytes));
  for (std::uint64_t at = 0; at < verified.digestedBytes;) {
    const std::uint64_t wanted = std::min<std::uint64_t>(piece.size(), verified.digestedBytes - at);
    const ssize_t count = platform::retryOnInterrupt(
        [&] { return ::pread(from, piece.data(), wanted, static_cast<off_t>(at)); });
    if (count < 0) return std::unexpected(platform::systemError(path));
    if (count == 0) return changed(path, "has become shorter since it was verified");
    const auto bytes = std::span(piece).first(static_cast<std::size_t>(count));
    if (auto added = hash->add(bytes); !added) return added;
    if (auto written = writeAll(to, bytes, path); !written) return written;
    at += bytes.size();
  }
  const auto same = hasDigest(*hash, verified);
  if (!same) return std::unexpected(same.error());
  if (!*same) return changed(path, "has been changed since it was verified");
  return {};
}

Result<UniqueFd> sealedCopy(int script, const VerifiedFile& verified, const std::string& path) {
  auto copy = makeSealable(path);
  if (!copy) return copy;
  if (auto copied = copyContent(script, copy->get(), verified, path); !copied) {
    return std::unexpected(copied.error());
  }
  constexpr int kSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;
  if (::fcntl(copy->get(), F_ADD_SEALS, kSeals) != 0) {
    return std::unexpected(platform::systemError("sealing the script " + path));
  }
  return copy;
}

}  // namespace

Result<ProgramFile> ProgramFile::open(const std::string& path, const VerifiedFile& verified) {
  const auto found = platform::findFile(path, platform::FinalLink::kRefuse);
  if (!found) return std::unexpected(found.error());
  if (!isSameFile(verified, found->status)) {
    return changed(path, "is not the file that was verified");
  }
  auto opened = platform::openFoundFile(*found, path);
  if (!opened) return std::unexpected(opened.error());
  const int file = opened->get();
  if (!keepFromWriters(file)) return changed(path, "is open for writing");
  struct stat now{};
  if (::fstat(file, &now) != 0) return std::unexpected(platform::systemError(path));
  if (!isSameFile(verified, now)) return changed(path, "has been changed since it was verified");
  if (!verified.verity.empty() && platform::verityDigestOf(file) != verified.verity) {
    return changed(path, "is not protected by the file system as it was when it was verified");
  }
  ProgramFile program;
  program.isScript_ = beginsAsScript(file);
  if (program.isScript_) {
    if (verified.digestedBytes > kMaximumScriptBytes) {
      return changed(path, "is a script of more than 16 MiB");
    }
    auto copy = sealedCopy(file, verified, path);
    if (!copy) return std::unexpected(copy.error());
    program.file_ = *std::move(copy);
    return program;
  }
  if (!verified.isSettled && verified.verity.empty()) {
    if (verified.digestedBytes > kMaximumYoungBytes) {
      return changed(path, "was changed too shortly before it was verified");
    }
    if (auto same = compareDigest(file, verified, path); !same) {
      return std::unexpected(same.error());
    }
  }
  program.file_ = std::move(opened->file);
  return program;
}

}  // namespace jobhost
