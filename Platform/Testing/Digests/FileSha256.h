#pragma once

#include <limits>
#include <optional>
#include <string>

#include "Platform/Digests/FileDigest.h"

namespace platform {

// The SHA-256 of a file, computed without pauses; std::nullopt for an empty file.
inline Result<std::optional<Sha256>> sha256OfFile(const std::string& path) {
  auto digest = FileDigest::open(path);
  if (!digest) return std::unexpected(digest.error());
  const auto done = digest->readMore(std::numeric_limits<std::uint64_t>::max());
  if (!done) return std::unexpected(done.error());
  return digest->finish();
}

}  // namespace platform
