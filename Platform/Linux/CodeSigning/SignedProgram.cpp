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

CodeSigningResult<RegularFile> openSeen(const std::string& path, const struct stat& seen) {
  auto file = openRegularFile(path);
  if (!file && file.error().osError != 0) {
    return std::unexpected(failureOfSystemCall(path, file.error().osError));
  }
  if (!file) return refuse(errSecCSBadObjectFormat, describe(file.error()));
  if (!isSameState(seen, file->status)) {
    return refuse(errSecCSSignatureFailed, path + ": was replaced while it was looked at");
  }
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
  const auto seen = fileStatus(beside);
  if (!seen && (seen.error().status == kErrnoStatusBase + ENOENT ||
                seen.error().status == kErrnoStatusBase + ENAMETOOLONG)) {
    return refuse(errSecCSUnsigned,
                  path + (program.status.st_size == 0
                              ? ": is empty"
                              : ": carries no signature, and there is no .p7s beside it"));
  }
  if (!seen) return std::unexpected(seen.error());
  if (auto usable = checkIsProgramFile(beside, *seen); !usable) return usable;
  if (seen->st_size == 0) return refuse(errSecCSBadObjectFormat, beside + ": is empty");
  if (seen->st_size > static_cast<off_t>(kMaxSignatureBytes)) {
    return refuse(errSecCSBadObjectFormat, beside + ": is larger than a signature may be");
  }
  const auto file = openSeen(beside, *seen);
  if (!file) return std::unexpected(file.error());
  auto bytes = readRange(file->get(), 0, static_cast<std::size_t>(seen->st_size), beside);
  if (!bytes) return std::unexpected(bytes.error());
  program.payloadBytes = static_cast<std::uint64_t>(program.status.st_size);
  program.signature = *std::move(bytes);
  program.detachedFacts.push_back({beside, FileFact::Covers::kContents, *seen});
  return {};
}

}  // namespace

CodeSigningResult<SignedProgram> openSignedProgram(const std::string& path) {
  const auto seen = fileStatus(path);
  if (!seen) return std::unexpected(seen.error());
  if (auto usable = checkIsProgramFile(path, *seen); !usable) {
    return std::unexpected(usable.error());
  }
  auto file = openSeen(path, *seen);
  if (!file) return std::unexpected(file.error());
  SignedProgram program;
  program.file = std::move(file->file);
  program.status = *seen;
  const auto size = static_cast<std::uint64_t>(seen->st_size);
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
