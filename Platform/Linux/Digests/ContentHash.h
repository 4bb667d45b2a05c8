#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Error.h"

namespace platform {

// A digest of content that comes in pieces. All digests of files are made here. Failures are those
// of OpenSSL, which has no memory then; their code is kExhausted.
class ContentHash {
 public:
  // `name` is for the errors' texts.
  static Result<ContentHash> create(const EVP_MD* kind, std::string name);

  Result<void> add(std::span<const std::uint8_t> piece);
  // Reads `size` bytes of an open file from `offset`; blocks on the disk. Fails with kInvalid if
  // the file ends before that.
  Result<void> addFrom(int file, std::uint64_t offset, std::uint64_t size);
  // Call it once.
  Result<std::vector<std::uint8_t>> finish();

 private:
  ContentHash(DigestContext context, std::string name)
      : context_(std::move(context)), name_(std::move(name)) {}
  std::unexpected<Error> failure() const;

  DigestContext context_;
  std::string name_;
};

}  // namespace platform
