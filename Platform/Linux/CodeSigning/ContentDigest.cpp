#include "Platform/Linux/CodeSigning/ContentDigest.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <fmt/format.h>
#include <unistd.h>

#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

// Large enough to make the cost of system calls small, small enough for the second-level cache.
constexpr std::size_t kDigestPieceBytes = 128 * 1024;

std::unexpected<CodeSigningFailure> digestFailure(const std::string& name) {
  return std::unexpected(CodeSigningFailure{kErrnoStatusBase + ENOMEM,
                                            name + ": can't be hashed: " + takeOpenSslError()});
}

// Reads `size` bytes, fewer only at the end of the file.
CodeSigningResult<std::size_t> readAt(int file, std::uint8_t* to, std::size_t size,
                                      std::uint64_t offset, const std::string& name) {
  std::size_t filled = 0;
  while (filled < size) {
    const ssize_t count = retryOnInterrupt([&] {
      return ::pread(file, to + filled, size - filled, static_cast<off_t>(offset + filled));
    });
    if (count < 0) return std::unexpected(failureOfSystemCall(name, errno));
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  return filled;
}

std::unexpected<CodeSigningFailure> becameShorter(const std::string& name) {
  return std::unexpected(
      CodeSigningFailure{errSecCSSignatureFailed, name + ": became shorter while it was read"});
}

CodeSigningResult<std::vector<std::uint8_t>> finish(EVP_MD_CTX* context, const std::string& name) {
  std::vector<std::uint8_t> digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context, digest.data(), &size) != 1) return digestFailure(name);
  digest.resize(size);
  return digest;
}

}  // namespace

// FileDigest has another loop: it reads from the file's position and stops between its turns.
CodeSigningResult<std::vector<std::uint8_t>> digestOfFile(int file, std::uint64_t size,
                                                          const EVP_MD* kind,
                                                          const std::string& name) {
  if (size > kMaxCodeBytes) {
    return std::unexpected(CodeSigningFailure{
        kErrnoStatusBase + EFBIG,
        fmt::format("{}: is larger than the {} bytes that are checked", name, kMaxCodeBytes)});
  }
  const DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), kind, nullptr) != 1) return digestFailure(name);
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(kDigestPieceBytes);
  for (std::uint64_t done = 0; done < size;) {
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(size - done, kDigestPieceBytes));
    const auto count = readAt(file, piece.get(), wanted, done, name);
    if (!count) return std::unexpected(count.error());
    if (*count != wanted) return becameShorter(name);
    if (EVP_DigestUpdate(context.get(), piece.get(), *count) != 1) return digestFailure(name);
    done += *count;
  }
  return finish(context.get(), name);
}

CodeSigningResult<std::vector<std::uint8_t>> digestOfBytes(std::span<const std::uint8_t> bytes,
                                                           const EVP_MD* kind,
                                                           const std::string& name) {
  const DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), kind, nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()) != 1) {
    return digestFailure(name);
  }
  return finish(context.get(), name);
}

CodeSigningResult<std::vector<std::uint8_t>> readRange(int file, std::uint64_t offset,
                                                       std::size_t size, const std::string& name) {
  std::vector<std::uint8_t> bytes(size);
  const auto count = readAt(file, bytes.data(), size, offset, name);
  if (!count) return std::unexpected(count.error());
  if (*count != size) return becameShorter(name);
  return bytes;
}

}  // namespace platform
