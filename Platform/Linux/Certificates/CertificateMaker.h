#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Error.h"

namespace platform {

// A private key, and the certificates from its own to the authority's.
struct SigningIdentity {
  KeyHandle key;
  std::vector<CertificateHandle> chain;  // its own first
};

// The content of a new certificate. Extensions are written in OpenSSL's syntax.
struct CertificateRequest {
  std::string commonName;
  std::chrono::sys_seconds notBefore;
  std::chrono::sys_seconds notAfter;
  std::string basicConstraints = "critical,CA:FALSE";
  std::string keyUsage = "critical,digitalSignature";
  std::string extendedKeyUsage = "critical,codeSigning";  // empty: none
  const EVP_MD* digest = EVP_sha256();
};

// A request for an authority's certificate instead of a signer's.
CertificateRequest authorityRequest(std::string commonName, std::chrono::sys_seconds notBefore,
                                    std::chrono::sys_seconds notAfter);

// A new key on the curve with this OpenSSL name ("P-256"), or of RSA. Blocks until the system has
// random numbers.
Result<KeyHandle> makeEcKey(const char* curve);
Result<KeyHandle> makeRsaKey(unsigned int bits);

// A certificate for `key`, issued by `issuer`; self-signed if `issuer` is null.
Result<CertificateHandle> makeCertificate(const CertificateRequest& request, EVP_PKEY* key,
                                          const SigningIdentity* issuer);

// A key with its certificate from `issuer` and the issuer's chain. A self-signed certificate at the
// end of the chain is left out, because a verifier must already have it.
Result<SigningIdentity> makeIdentity(const CertificateRequest& request, KeyHandle key,
                                     const SigningIdentity* issuer);

}  // namespace platform
