#pragma once

#include <string>

#include "Platform/Linux/Certificates/CertificateMaker.h"

namespace platform {

// A certificate, and a private key (PKCS #8, not encrypted), as PEM.
Result<std::string> pemOfCertificate(X509* certificate);
Result<std::string> pemOfKey(EVP_PKEY* key);

// Reads a key and its certificates (its own first) from two PEM files. Fails with kInvalid if they
// don't belong together.
Result<SigningIdentity> readIdentity(const std::string& keyPath,
                                     const std::string& certificatesPath);

}  // namespace platform
