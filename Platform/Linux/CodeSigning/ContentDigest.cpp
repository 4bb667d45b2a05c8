#include "Platform/Linux/CodeSigning/ContentDigest.h"

#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/Digests/ContentHash.h"
#include "Platform/Linux/Files/FilePieces.h"

namespace platform {
namespace {

std::unexpected<CodeSigningFailure> readingFailure(const Error& error) {
  if (error.osError != 0) return refuse(kErrnoStatusBase + error.osError, describe(error));
  // Either OpenSSL has no memory, or the file is shorter than it was.
  if (error.code != ErrorCode::kExhausted) return changedMeanwhile(describe(error));
  return refuse(kErrnoStatusBase + ENOMEM, describe(error));
}

template <typename Add>
CodeSigningResult<std::vector<std::uint8_t>> digestOf(const EVP_MD* kind, const std::string& name,
                                                      const Add& add) {
  auto hash = ContentHash::create(kind, name);
  if (!hash) return readingFailure(hash.error());
  if (const auto added = add(*hash); !added) return readingFailure(added.error());
  auto digest = hash->finish();
  if (!digest) return readingFailure(digest.error());
  return *std::move(digest);
}

}  // namespace

CodeSigningResult<std::vector<std::uint8_t>> digestOfFile(int file, std::uint64_t size,
                                                          const EVP_MD* kind,
                                                          const std::string& name) {
  if (size > kMaxCodeBytes) {
    return std::unexpected(CodeSigningFailure{
        kErrnoStatusBase + EFBIG,
        fmt::format("{}: is larger than the {} bytes that are checked", name, kMaxCodeBytes)});
  }
  return digestOf(kind, name, [&](ContentHash& hash) { return hash.addFrom(file, 0, size); });
}

CodeSigningResult<std::vector<std::uint8_t>> digestOfBytes(std::span<const std::uint8_t> bytes,
                                                           const EVP_MD* kind,
                                                           const std::string& name) {
  return digestOf(kind, name, [&](ContentHash& hash) { return hash.add(bytes); });
}

CodeSigningResult<std::vector<std::uint8_t>> readRange(int file, std::uint64_t offset,
                                                       std::size_t size, const std::string& name) {
  std::vector<std::uint8_t> bytes(size);
  const auto count = readAt(file, offset, bytes, name);
  if (!count) return readingFailure(count.error());
  if (*count != size) return readingFailure({ErrorCode::kInvalid, 0, becameShorter(name)});
  return bytes;
}

}  // namespace platform
