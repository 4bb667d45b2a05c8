#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>

#include "Platform/Digest.h"
#include "Platform/Error.h"

namespace platform {

using Sha256 = std::array<std::uint8_t, CC_SHA256_DIGEST_LENGTH>;

// The SHA-256 of a file's content, of what it held when it was opened; nothing for an empty file.
// Read in pieces, so that its size does not count, and for as long as the disk takes, or until
// `stop`. Any thread.
//
// Nothing but a regular file is opened, so that no device notices and no pipe is waited for:
// kInvalid, also for the kernel's own files, which may have no end, and for a file that becomes
// shorter meanwhile.
Result<std::optional<Sha256>> sha256OfFile(const std::string& path, const std::stop_token& stop);

}  // namespace platform
