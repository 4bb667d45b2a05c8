#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

// The largest file that is hashed. It bounds the time of a check: a sparse file costs no space.
inline constexpr std::uint64_t kMaxCodeBytes = std::uint64_t{4} << 30;

// The digest of the first `size` bytes of an open file, read in pieces: a mapping would end the
// process when the file is cut meanwhile. A file that ends before is errSecCSSignatureFailed.
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
