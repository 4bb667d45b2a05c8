#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/pem.h>

#include "Fuzz/Require.h"
#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

// A signature that may bring the certificate of a trusted signer, which is no secret. The seeds are
// such a signer's; the private keys do not exist any more. So nothing but variants of the seeds can
// be accepted, over the signed content alone.
namespace {

using namespace platform;

constexpr char kAuthority[] = R"(-----BEGIN CERTIFICATE-----
MIIBjzCCATWgAwIBAgIUEh10bT2hCZVz63Ep9oKgggXQ5XwwCgYIKoZIzj0EAwIw
FDESMBAGA1UEAwwJQXV0aG9yaXR5MCAXDTI2MTEyMjIwMjI1OFoYDzIwNzAwOTEy
MjAyMjU4WjAUMRIwEAYDVQQDDAlBdXRob3JpdHkwWTATBgcqhkjOPQIBBggqhkjO
PQMBBwNCAAQ3N0frX9/NpjKeaLtRoNMFmkknpNOaxJQDbwD+ODd/IPsbgT+3b+XL
yO5KEBsy+HyzdNO3DIozwdR+oCRywtoeo2MwYTAdBgNVHQ4EFgQUVzXlfBNG7Yad
mX59PQMmUGoXZc0wHwYDVR0jBBgwFoAUVzXlfBNG7YadmX59PQMmUGoXZc0wDwYD
VR0TAQH/BAUwAwEB/zAOBgNVHQ8BAf8EBAMCAQYwCgYIKoZIzj0EAwIDSAAwRQIh
AIgi5u7yLfsz9IrJry543omOLdn6hZNO0qz4ZZg4k7J1AiAzBTTyLOvLsAed7u2i
VhG21D/ilrLxWX6TZOl7yArkHQ==
-----END CERTIFICATE-----
)";
constexpr std::chrono::sys_seconds kNow = std::chrono::sys_days{std::chrono::January / 1 / 2030};
constexpr std::string_view kSignedContent = "content\n";
constexpr std::string_view kOtherContent = "another\n";

AnchorSet authority() {
  const std::string_view text(kAuthority);
  const BioHandle memory(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  const CertificateHandle certificate(PEM_read_bio_X509(memory.get(), nullptr, nullptr, nullptr));
  AnchorSet set;
  set.store.reset(X509_STORE_new());
  set.certificates.reset(sk_X509_new_null());
  fuzz::require(
      certificate && X509_STORE_add_cert(set.store.get(), certificate.get()) == 1 &&
          X509_add_cert(set.certificates.get(), certificate.get(), X509_ADD_FLAG_UP_REF) == 1,
      "the authority's certificate");
  return set;
}

CodeSigningResult<VerifiedSignature> verify(std::span<const std::uint8_t> signature,
                                            std::string_view content) {
  static const AnchorSet anchors = authority();
  const TrustedPlace place(0);
  return verifySignature(signature, "file", {anchors, place, kNow},
                         [content](const EVP_MD* kind) -> CodeSigningResult<DigestedContent> {
                           std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
                           unsigned int size = 0;
                           fuzz::require(EVP_Digest(content.data(), content.size(), digest.data(),
                                                    &size, kind, nullptr) == 1,
                                         "a digest");
                           return DigestedContent{{digest.begin(), digest.begin() + size},
                                                  static_cast<std::uint8_t>(content.front())};
                         });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::span signature(bytes, size);
  fuzz::require(!verify(signature, kOtherContent), "other content was not signed");
  const auto accepted = verify(signature, kSignedContent);
  if (!accepted) return 0;
  const SignatureStatement& statement = accepted->statement;
  fuzz::require(!statement.identifier || *statement.identifier == "com.example.fuzz",
                "the signed identifier");
  fuzz::require(!statement.signingTime || *statement.signingTime <= kNow, "the signed time");
  fuzz::require(statement.certificates.size() == 2, "the signer and the authority");
  return 0;
}
