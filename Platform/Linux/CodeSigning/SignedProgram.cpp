#include "Platform/Linux/CodeSigning/SignedProgram.h"

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "Platform/Linux/CodeSigning/ContentDigest.h"
#include "Platform/Linux/CodeSigning/SignatureTrailer.h"
#include "Platform/Linux/Files/RegularFile.h"

namespace platform {
namespace {

// Finds a file and opens it, if it can be a program.
CodeSigningResult<RegularFile> openProgramFile(const std::string& path) {
  if (path.contains('\0')) return std::unexpected(failureOfSystemCall(path, EINVAL));
  const auto found = findFile(path, FinalLink::kRefuse);
  if (!found) return std::unexpected(failureOfSystemCall(path, found.error().osError));
  if (auto usable = checkIsProgramFile(path, found->status); !usable) {
    return std::unexpected(usable.error());
  }
  auto file = openFoundFile(*found, path);
  if (!file) return std::unexpected(failureOfOpening(path, file.error()));
  return *std::move(file);
}

bool endsWithMagic(std::span<const std::uint8_t> bytes) {
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return text.ends_with(kTrailerMagic);
}

CodeSigningResult<void> takeAppended(SignedProgram& program, const SignatureTrailer& trailer,
                                     const std::string& path) {
  const auto before = std::min<std::uint64_t>(trailer.payloadBytes, kTrailerMagic.size());
  const auto size = static_cast<std::size_t>(before) + trailer.signatureBytes;
  auto bytes = readRange(program.file.get(), trailer.payloadBytes - before, size, path);
  if (!bytes) return std::unexpected(bytes.error());
  const auto start = bytes->begin() + static_cast<std::ptrdiff_t>(before);
  // With two signatures, different verifiers could disagree on which one counts.
  if (endsWithMagic({bytes->begin(), start})) {
    return refuse(errSecCSBadObjectFormat, path + ": is signed over another signature at its end");
  }
  program.payloadBytes = trailer.payloadBytes;
  program.signature.assign(start, bytes->end());
  return {};
}

CodeSigningResult<void> takeDetached(SignedProgram& program, const std::string& path) {
  const std::string beside = path + ".p7s";
  const auto file = openProgramFile(beside);
  if (!file && (file.error().status == kErrnoStatusBase + ENOENT ||
                file.error().status == kErrnoStatusBase + ENAMETOOLONG)) {
    return refuse(errSecCSUnsigned,
                  path + (program.status.st_size == 0
                              ? ": is empty"
                              : ": carries no signature, and there is no .p7s beside it"));
  }
  if (!file) return std::unexpected(file.error());
  const struct stat& status = file->status;
  if (status.st_size == 0) return refuse(errSecCSBadObjectFormat, beside + ": is empty");
  if (status.st_size > static_cast<off_t>(kMaxSignatureBytes)) {
    return refuse(errSecCSBadObjectFormat, beside + ": is larger than a signature may be");
  }
  auto bytes = readRange(file->get(), 0, static_cast<std::size_t>(status.st_size), beside);
  if (!bytes) return std::unexpected(bytes.error());
  program.payloadBytes = static_cast<std::uint64_t>(program.status.st_size);
  program.signature = *std::move(bytes);
  program.detachedFacts.push_back({beside, FileFact::Covers::kContents, status});
  return {};
}

}  // namespace

CodeSigningResult<SignedProgram> openSignedProgram(const std::string& path) {
  auto file = openProgramFile(path);
  if (!file) return std::unexpected(file.error());
  SignedProgram program;
  program.file = std::move(file->file);
  program.status = file->status;
  const auto size = static_cast<std::uint64_t>(program.status.st_size);
  const auto endingBytes = static_cast<std::size_t>(std::min<std::uint64_t>(size, kTrailerBytes));
  const auto ending = readRange(program.file.get(), size - endingBytes, endingBytes, path);
  if (!ending) return std::unexpected(ending.error());
  const auto trailer = readSignatureTrailer(size, *ending);
  if (!trailer && trailer.error() != TrailerFault::kAbsent) {
    return refuse(errSecCSBadObjectFormat, path + ": " + std::string(describe(trailer.error())));
  }
  auto taken = trailer ? takeAppended(program, *trailer, path) : takeDetached(program, path);
  if (!taken) return std::unexpected(taken.error());
  if (program.payloadBytes > 0) {
    const auto first = readRange(program.file.get(), 0, 1, path);
    if (!first) return std::unexpected(first.error());
    program.firstByte = first->front();
  }
  return program;
}

CodeSigningResult<void> checkIsProgramFile(const std::string& path, const struct stat& status) {
  const auto isNot = [&](const char* what) {
    return refuse(errSecCSBadObjectFormat, path + ": is " + what + ", not a program");
  };
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      return {};
    case S_IFDIR:
      return isNot("a folder");
    case S_IFIFO:
      return isNot("a pipe");
    case S_IFCHR:
    case S_IFBLK:
      return isNot("a device");
    case S_IFSOCK:
      return isNot("a socket");
    case S_IFLNK:
      return refuse(kErrnoStatusBase + ELOOP, path + ": is a symbolic link; name the real path");
    default:  // Other kinds of files.
      return isNot("something unknown");
  }
}

}  // namespace platform
