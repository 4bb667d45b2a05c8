#include "Platform/Linux/Certificates/CertificateRules.h"

#include <array>
#include <string_view>

#include <fmt/format.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

namespace platform {
namespace {

constexpr int kLeastRsaBits = 2048;
// A larger key makes a check take seconds.
constexpr int kMostRsaBits = 8192;
constexpr int kLeastDigestBits = 256;

std::string curveOf(const EVP_PKEY* key) {
  std::array<char, 64> name{};
  std::size_t size = 0;
  if (EVP_PKEY_get_group_name(key, name.data(), name.size(), &size) != 1) return "unnamed";
  return name.data();
}

bool has(X509* certificate, std::uint32_t flag) {
  return (X509_get_extension_flags(certificate) & flag) != 0;
}

}  // namespace

std::optional<std::string> faultOfKey(X509* certificate) {
  const EVP_PKEY* const key = X509_get0_pubkey(certificate);
  if (!key) {
    takeOpenSslError();
    return "has a key of an unknown kind";
  }
  const int bits = EVP_PKEY_get_bits(key);
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      if (bits < kLeastRsaBits || bits > kMostRsaBits) {
        return fmt::format("has an RSA key of {} bits; accepted are {} to {}", bits, kLeastRsaBits,
                           kMostRsaBits);
      }
      return std::nullopt;
    case EVP_PKEY_EC: {
      const std::string curve = curveOf(key);
      if (curve == SN_X9_62_prime256v1 || curve == SN_secp384r1 || curve == SN_secp521r1) {
        return std::nullopt;
      }
      return fmt::format("has a key on the curve {}; accepted are P-256, P-384 and P-521", curve);
    }
    default:  // OpenSSL's numbers are no enumeration.
      return "has a key that is neither RSA nor on an elliptic curve";
  }
}

std::optional<std::string> faultOfDigest(X509* certificate) {
  int digest = NID_undef;
  if (X509_get_signature_info(certificate, &digest, nullptr, nullptr, nullptr) != 1) {
    takeOpenSslError();
    return "was signed with an unknown digest";
  }
  const EVP_MD* const kind = EVP_get_digestbynid(digest);
  if (!kind || EVP_MD_get_size(kind) * 8 < kLeastDigestBits) {
    const char* const name = OBJ_nid2sn(digest);
    return fmt::format("was signed with the digest {}; accepted are SHA-256 and stronger",
                       name ? name : "none");
  }
  return std::nullopt;
}

std::optional<std::string> faultOfIssuer(X509* certificate) {
  // X509_check_ca() also accepts certificates that only look like an authority's.
  if (!has(certificate, EXFLAG_CA) || has(certificate, EXFLAG_INVALID)) {
    return "is not a certificate authority";
  }
  if ((X509_get_key_usage(certificate) & KU_KEY_CERT_SIGN) == 0) {
    return "must not sign certificates: its key usage does not say so";
  }
  if (has(certificate, EXFLAG_XKUSAGE) &&
      (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) == 0) {
    return "is an authority for other purposes than signing code";
  }
  return std::nullopt;
}

std::optional<std::string> faultOfSigner(X509* certificate, SignerStanding standing) {
  if (has(certificate, EXFLAG_INVALID)) return "has ill-formed extensions";
  // Without the extension, OpenSSL sets all bits.
  if ((X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) == 0) {
    return "must not sign: its key usage does not say \"digital signature\"";
  }
  const bool namesPurposes = has(certificate, EXFLAG_XKUSAGE);
  const bool signsCode =
      namesPurposes && (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0;
  if (!signsCode && (namesPurposes || standing == SignerStanding::kIssued)) {
    return "must not sign code: its extended key usage does not say \"code signing\"";
  }
  if (standing == SignerStanding::kIssued && has(certificate, EXFLAG_CA)) {
    return "is a certificate authority, which must not sign code itself";
  }
  return std::nullopt;
}

}  // namespace platform
