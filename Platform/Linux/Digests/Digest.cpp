#include "Platform/Digests/Digest.h"

#include <cstdio>
#include <cstdlib>

#include <openssl/evp.h>
#include <openssl/provider.h>

#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {
namespace {

// OpenSSL fails here only without memory or if it is damaged. A wrong digest would do harm, so
// abort.
[[noreturn]] void stop(const char* name) {
  std::fprintf(stderr, "%s can't be computed: %s\n", name, takeOpenSslError().c_str());
  std::abort();
}

// A library context of our own ignores the machine's OpenSSL configuration, which may forbid MD5
// for security; nothing here relies on MD5 for security. It is never freed: threads may still hash
// while static objects are destroyed.
const EVP_MD* fetch(const char* name) {
  static OSSL_LIB_CTX* const context = [] {
    OSSL_LIB_CTX* made = OSSL_LIB_CTX_new();
    if (!made || !OSSL_PROVIDER_load(made, "default")) stop("A digest");
    return made;
  }();
  const EVP_MD* digest = EVP_MD_fetch(context, name, nullptr);
  if (!digest) stop(name);
  return digest;
}

template <std::size_t Size>
std::array<std::uint8_t, Size> compute(const EVP_MD* digest, std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, Size> result;
  const DigestContext context(EVP_MD_CTX_new());
  unsigned int size = 0;
  if (!context || EVP_DigestInit_ex2(context.get(), digest, nullptr) != 1 ||
      EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()) != 1 ||
      EVP_DigestFinal_ex(context.get(), result.data(), &size) != 1 || size != Size) {
    stop(EVP_MD_get0_name(digest));
  }
  return result;
}

}  // namespace

std::array<std::uint8_t, CC_MD5_DIGEST_LENGTH> CC_MD5(std::span<const std::uint8_t> bytes) {
  static const EVP_MD* const digest = fetch("MD5");
  return compute<CC_MD5_DIGEST_LENGTH>(digest, bytes);
}

std::array<std::uint8_t, CC_SHA1_DIGEST_LENGTH> CC_SHA1(std::span<const std::uint8_t> bytes) {
  static const EVP_MD* const digest = fetch("SHA1");
  return compute<CC_SHA1_DIGEST_LENGTH>(digest, bytes);
}

std::array<std::uint8_t, CC_SHA256_DIGEST_LENGTH> CC_SHA256(std::span<const std::uint8_t> bytes) {
  static const EVP_MD* const digest = fetch("SHA256");
  return compute<CC_SHA256_DIGEST_LENGTH>(digest, bytes);
}

}  // namespace platform
