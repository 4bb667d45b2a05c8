#include "JobHost/Processes/ProgramFile.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <span>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Digests/ContentHash.h"
#include "Platform/Linux/Files/FilePieces.h"
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

std::unexpected<Error> failureOfReading(const Error& error, const std::string& path) {
  if (error.code != ErrorCode::kInvalid) return std::unexpected(error);
  return changed(path, "has become shorter since it was verified");
}

Result<void> compareDigest(ContentHash& hash, const VerifiedFile& verified,
                           const std::string& path) {
  const auto digest = hash.finish();
  if (!digest) return std::unexpected(digest.error());
  if (*digest != verified.digest) return changed(path, "has been changed since it was verified");
  return {};
}

Result<void> compareContent(int file, const VerifiedFile& verified, const std::string& path) {
  auto hash = newHash(verified, path);
  if (!hash) return std::unexpected(hash.error());
  if (auto added = hash->addFrom(file, 0, verified.digestedBytes); !added) {
    return failureOfReading(added.error(), path);
  }
  return compareDigest(*hash, verified, path);
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
  const auto take = [&](std::span<const std::uint8_t> piece) {
    const auto added = hash->add(piece);
    return added ? writeAll(to, piece, path) : added;
  };
  if (auto read = platform::readPieces(from, 0, verified.digestedBytes, path, take); !read) {
    return failureOfReading(read.error(), path);
  }
  return compareDigest(*hash, verified, path);
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
    if (auto same = compareContent(file, verified, path); !same) {
      return std::unexpected(same.error());
    }
  }
  program.file_ = std::move(opened->file);
  return program;
}

}  // namespace jobhost
