#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// The content of an open file is read here: in pieces, because a mapping would crash the process if
// the file is truncated meanwhile. EINTR and short reads are retried. Callers read as much as the
// file had when it was opened, so that a growing file has an end, too. A small file that is needed
// whole is read by readToEnd() in RegularFile.h.

// The largest piece. Large enough to make the cost of system calls small, small enough for the
// second-level cache.
inline constexpr std::size_t kPieceBytes = 256 * 1024;

// Reads bytes from `offset` into `to`. Returns their number, fewer only at the end of the file.
// `name` is for the error's text.
Result<std::size_t> readAt(int file, std::uint64_t offset, std::span<std::uint8_t> to,
                           const std::string& name);

// Reads `size` bytes from `offset` and hands them to `take` piece by piece. Fails with kInvalid if
// the file ends before that, and with the failure of `take`.
using TakePiece = std::function<Result<void>(std::span<const std::uint8_t> piece)>;
Result<void> readPieces(int file, std::uint64_t offset, std::uint64_t size, const std::string& name,
                        const TakePiece& take);

// The text of the failure of a file that ended before the size that it had.
std::string becameShorter(const std::string& name);

}  // namespace platform
