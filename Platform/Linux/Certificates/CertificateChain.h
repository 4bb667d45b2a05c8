#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Value.h"

namespace platform {

// From a signer's certificate to an anchor.
struct CertificateChain {
  // From then, and until before then, all of its certificates are valid.
  std::chrono::sys_seconds notBefore;
  std::chrono::sys_seconds notAfter;
  Array certificates;  // DER, the signer's first
};

// The longest chain from signer to anchor, counted in certificates between them.
inline constexpr int kMaxIntermediateCertificates = 8;

// Checks, in this order, that `signer` leads to one of the anchors and was valid at `time`, that
// keys and digests are strong enough, and that every certificate may be used for what it does here:
//
// - keys: RSA of 2048 bits or more, or one of the curves P-256, P-384 and P-521; digests: none
//   weaker than SHA-256 (an anchor's own signature does not matter);
// - issuers are certificate authorities that may sign certificates;
// - the signer may make digital signatures and sign code, and is no authority. An anchor that signs
//   code itself need not say that it may (sign-file's keys don't) and may be an authority, since an
//   administrator has put that very certificate there.
//
// `extra` are certificates that may stand between; `store` holds the anchors. `name` begins the
// reason of a failure.
CodeSigningResult<CertificateChain> checkCertificateChain(X509* signer, STACK_OF(X509) * extra,
                                                          X509_STORE* store,
                                                          STACK_OF(X509) * anchors,
                                                          std::chrono::sys_seconds time,
                                                          const std::string& name);

// The certificate's encoding.
Data derOfCertificate(X509* certificate);

// Whom a certificate is for, and whom it is from, each as one line.
std::string subjectOf(const X509* certificate);
std::string issuerOf(const X509* certificate);

}  // namespace platform
