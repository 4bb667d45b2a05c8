#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Digests/Digest.h"
#include "Platform/Values/Error.h"

namespace platform {

using Sha256 = std::array<std::uint8_t, CC_SHA256_DIGEST_LENGTH>;

// The SHA-256 of the content that a file had when it was opened. It is read in pieces, so that a
// file of any size needs little memory. Reading can be paused and resumed, by any thread, one at a
// time.
class FileDigest {
 public:
  // Opens only a regular file, so that a device is not affected and a pipe does not block. Fails
  // with kInvalid for other kinds, also for the kernel's own files, which may have no end. Any
  // thread may call it.
  static Result<FileDigest> open(const std::string& path);

  // Whether the file can be read. It can't while another process has a lease on it, which the
  // system takes away after some time. Each call then waits for kLeasePause; call it again. Fails
  // when the lease has not ended after kMostLeasePauses.
  Result<bool> isReady();
  static constexpr std::chrono::milliseconds kLeasePause{2};
  static constexpr int kMostLeasePauses = 30'000;

  FileDigest(FileDigest&& other) noexcept;
  FileDigest& operator=(FileDigest&& other) noexcept;
  ~FileDigest();

  // Reads about `bytes` more, at least one piece, and blocks on the disk. Returns whether the whole
  // file has been read. Fails with kInvalid if the file has become shorter meanwhile. Call it when
  // the file is ready.
  Result<bool> readMore(std::uint64_t bytes);
  // Call it once, when the whole file has been read. std::nullopt for an empty file.
  Result<std::optional<Sha256>> finish();

 private:
  struct State;
  explicit FileDigest(std::unique_ptr<State> state);

  std::unique_ptr<State> state_;
};

}  // namespace platform
