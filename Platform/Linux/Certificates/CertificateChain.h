#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Certificates/Revocations.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Value.h"

namespace platform {

// The certificates from a signer's to an anchor's.
struct CertificateChain {
  // All certificates are valid from `notBefore` until before `notAfter`.
  std::chrono::sys_seconds notBefore;
  std::chrono::sys_seconds notAfter;
  Array certificates;  // DER, the signer's first
};

// The largest number of certificates between the signer's and the anchor's.
inline constexpr int kMaxIntermediateCertificates = 8;

// Checks, in this order, that `signer` leads to one of the anchors and was valid at `time`, that
// keys and digests are strong enough, and that each certificate may be used for its role:
//
// - keys: RSA of 2048 bits or more, or one of the curves P-256, P-384 and P-521; digests: SHA-256
// or stronger (an anchor's own signature is not checked);
// - issuers are certificate authorities that may sign certificates;
// - no certificate was revoked;
// - the signer may make digital signatures and sign code, and is no authority. An anchor that signs
// code itself may be an authority and need not list that use (sign-file's keys don't), because an
// administrator has installed that very certificate.
//
// `extra` are candidates for intermediate certificates; `store` holds the anchors. The reason of a
// failure begins with `name`.
CodeSigningResult<CertificateChain> checkCertificateChain(
    X509* signer, STACK_OF(X509) * extra, X509_STORE* store, STACK_OF(X509) * anchors,
    const Revocations& revocations, std::chrono::sys_seconds time, const std::string& name);

// The certificate in DER.
Data derOfCertificate(X509* certificate);

// The subject and the issuer, each on one line.
std::string subjectOf(const X509* certificate);
std::string issuerOf(const X509* certificate);

}  // namespace platform
