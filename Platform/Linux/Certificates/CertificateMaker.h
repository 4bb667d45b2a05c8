#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Error.h"

namespace platform {

// What signs: a private key, and the certificates from its own to the authority's.
struct SigningIdentity {
  KeyHandle key;
  std::vector<CertificateHandle> chain;  // its own first
};

// What a certificate is to say. Extensions are given as OpenSSL writes them.
struct CertificateRequest {
  std::string commonName;
  std::chrono::sys_seconds notBefore;
  std::chrono::sys_seconds notAfter;
  std::string basicConstraints = "critical,CA:FALSE";
  std::string keyUsage = "critical,digitalSignature";
  std::string extendedKeyUsage = "critical,codeSigning";  // empty: none
  const EVP_MD* digest = EVP_sha256();
};

// The request of an authority, instead of a signer's.
CertificateRequest authorityRequest(std::string commonName, std::chrono::sys_seconds notBefore,
                                    std::chrono::sys_seconds notAfter);

// A new key on a curve, as OpenSSL names it ("P-256"), or of RSA. Blocks on the system's random
// numbers.
Result<KeyHandle> makeEcKey(const char* curve);
Result<KeyHandle> makeRsaKey(unsigned int bits);

// The certificate that `issuer` gives for `key`; a self-signed one where `issuer` is null.
Result<CertificateHandle> makeCertificate(const CertificateRequest& request, EVP_PKEY* key,
                                          const SigningIdentity* issuer);

// A key together with its certificate from `issuer`, whose chain it carries on, but for a
// self-signed end: a verifier must have that one already.
Result<SigningIdentity> makeIdentity(const CertificateRequest& request, KeyHandle key,
                                     const SigningIdentity* issuer);

}  // namespace platform
