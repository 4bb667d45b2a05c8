#include "Platform/Linux/Certificates/CertificateMaker.h"

#include <ctime>
#include <utility>

#include <openssl/ec.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

namespace platform {
namespace {

constexpr int kSerialBits = 128;

bool setName(X509* certificate, const std::string& commonName) {
  X509_NAME* const name = X509_get_subject_name(certificate);
  return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName.data()),
                                    static_cast<int>(commonName.size()), -1, 0) == 1;
}

bool setSerialNumber(X509* certificate) {
  const std::unique_ptr<BIGNUM, OpenSslDeleter<BN_free>> number(BN_new());
  // One bit less keeps the number positive as a signed integer.
  return number && BN_rand(number.get(), kSerialBits - 1, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) &&
         BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate));
}

bool setTimes(X509* certificate, const CertificateRequest& request) {
  const auto set = [](ASN1_TIME* time, std::chrono::sys_seconds value) {
    return ASN1_TIME_adj(time, static_cast<std::time_t>(value.time_since_epoch().count()), 0, 0);
  };
  return set(X509_getm_notBefore(certificate), request.notBefore) &&
         set(X509_getm_notAfter(certificate), request.notAfter);
}

bool addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  if (value.empty()) return true;
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, OpenSslDeleter<X509_EXTENSION_free>> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool isSelfSigned(X509* certificate) { return X509_self_signed(certificate, 0) == 1; }

}  // namespace

CertificateRequest authorityRequest(std::string commonName, std::chrono::sys_seconds notBefore,
                                    std::chrono::sys_seconds notAfter) {
  CertificateRequest request;
  request.commonName = std::move(commonName);
  request.notBefore = notBefore;
  request.notAfter = notAfter;
  request.basicConstraints = "critical,CA:TRUE";
  request.keyUsage = "critical,keyCertSign,cRLSign";
  request.extendedKeyUsage.clear();
  return request;
}

Result<KeyHandle> makeEcKey(const char* curve) {
  KeyHandle key(EVP_EC_gen(curve));
  if (!key) return openSslFailure("making a key");
  return key;
}

Result<KeyHandle> makeRsaKey(unsigned int bits) {
  KeyHandle key(EVP_RSA_gen(bits));
  if (!key) return openSslFailure("making a key");
  return key;
}

Result<CertificateHandle> makeCertificate(const CertificateRequest& request, EVP_PKEY* key,
                                          const SigningIdentity* issuer) {
  CertificateHandle certificate(X509_new());
  if (!certificate) return openSslFailure("making a certificate");
  X509* const made = certificate.get();
  X509* const by = issuer ? issuer->chain.front().get() : made;
  EVP_PKEY* const byKey = issuer ? issuer->key.get() : key;
  const bool done = X509_set_version(made, X509_VERSION_3) == 1 && setSerialNumber(made) &&
                    setName(made, request.commonName) && setTimes(made, request) &&
                    X509_set_pubkey(made, key) == 1 &&
                    X509_set_issuer_name(made, X509_get_subject_name(by)) == 1 &&
                    addExtension(made, by, NID_basic_constraints, request.basicConstraints) &&
                    addExtension(made, by, NID_key_usage, request.keyUsage) &&
                    addExtension(made, by, NID_ext_key_usage, request.extendedKeyUsage) &&
                    addExtension(made, by, NID_subject_key_identifier, "hash") &&
                    addExtension(made, by, NID_authority_key_identifier, issuer ? "keyid" : "") &&
                    X509_sign(made, byKey, request.digest) > 0;
  if (!done) return openSslFailure("making the certificate \"" + request.commonName + "\"");
  return certificate;
}

Result<SigningIdentity> makeIdentity(const CertificateRequest& request, KeyHandle key,
                                     const SigningIdentity* issuer) {
  auto certificate = makeCertificate(request, key.get(), issuer);
  if (!certificate) return std::unexpected(certificate.error());
  SigningIdentity identity;
  identity.key = std::move(key);
  identity.chain.push_back(*std::move(certificate));
  if (!issuer) return identity;
  for (const CertificateHandle& next : issuer->chain) {
    if (isSelfSigned(next.get())) break;
    X509_up_ref(next.get());
    identity.chain.emplace_back(next.get());
  }
  return identity;
}

}  // namespace platform
