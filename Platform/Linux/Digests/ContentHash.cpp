#include "Platform/Linux/Digests/ContentHash.h"

#include <utility>

#include "Platform/Linux/Files/FilePieces.h"

namespace platform {

Result<ContentHash> ContentHash::create(const EVP_MD* kind, std::string name) {
  ContentHash hash(DigestContext(EVP_MD_CTX_new()), std::move(name));
  if (!hash.context_ || EVP_DigestInit_ex(hash.context_.get(), kind, nullptr) != 1) {
    return hash.failure();
  }
  return hash;
}

Result<void> ContentHash::add(std::span<const std::uint8_t> piece) {
  if (EVP_DigestUpdate(context_.get(), piece.data(), piece.size()) != 1) return failure();
  return {};
}

Result<void> ContentHash::addFrom(int file, std::uint64_t offset, std::uint64_t size) {
  return readPieces(file, offset, size, name_,
                    [this](std::span<const std::uint8_t> piece) { return add(piece); });
}

Result<std::vector<std::uint8_t>> ContentHash::finish() {
  std::vector<std::uint8_t> digest(EVP_MAX_MD_SIZE);
  unsigned int size = 0;
  if (EVP_DigestFinal_ex(context_.get(), digest.data(), &size) != 1) return failure();
  digest.resize(size);
  return digest;
}

std::unexpected<Error> ContentHash::failure() const {
  return openSslFailure(name_ + ": can't be hashed", ErrorCode::kExhausted);
}

}  // namespace platform
