#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Digests/Digest.h"
#include "Platform/Values/Error.h"

namespace platform {

using Sha256 = std::array<std::uint8_t, CC_SHA256_DIGEST_LENGTH>;

// The SHA-256 of a file's content, of what it held when it was opened. Read in pieces, so that its
// size does not count, and left and taken up again at will, by any thread, one at a time.
class FileDigest {
 public:
  // Nothing but a regular file is opened, so that no device notices and no pipe is waited for:
  // kInvalid, also for the kernel's own files, which may have no end. Any thread.
  static Result<FileDigest> open(const std::string& path);

  FileDigest(FileDigest&& other) noexcept;
  FileDigest& operator=(FileDigest&& other) noexcept;
  ~FileDigest();

  // Reads on for about so many bytes, at least a piece, and for as long as the disk takes. Whether
  // all has been read. kInvalid for a file that has become shorter meanwhile.
  Result<bool> readOn(std::uint64_t bytes);
  // When all has been read, once; nothing for an empty file.
  Result<std::optional<Sha256>> finish();

 private:
  struct State;
  explicit FileDigest(std::unique_ptr<State> state);

  std::unique_ptr<State> state_;
};

}  // namespace platform
