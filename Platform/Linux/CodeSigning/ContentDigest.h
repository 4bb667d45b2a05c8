#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

// The largest file that is hashed. The limit bounds the time of a check, since a sparse file may be
// huge.
inline constexpr std::uint64_t kMaxCodeBytes = std::uint64_t{4} << 30;

// The digest of the first `size` bytes of an open file (see FilePieces.h). Fails with
// kErrnoStatusBase + EAGAIN if the file is shorter, so it was changed meanwhile.
CodeSigningResult<std::vector<std::uint8_t>> digestOfFile(int file, std::uint64_t size,
                                                          const EVP_MD* kind,
                                                          const std::string& name);

CodeSigningResult<std::vector<std::uint8_t>> digestOfBytes(std::span<const std::uint8_t> bytes,
                                                           const EVP_MD* kind,
                                                           const std::string& name);

// `size` bytes of an open file from `offset`.
CodeSigningResult<std::vector<std::uint8_t>> readRange(int file, std::uint64_t offset,
                                                       std::size_t size, const std::string& name);

}  // namespace platform
