#pragma once

#include <string>

#include "Platform/Linux/Certificates/CertificateMaker.h"

namespace platform {

// PEM of a certificate, and of a private key (PKCS #8, not encrypted).
Result<std::string> pemOfCertificate(X509* certificate);
Result<std::string> pemOfKey(EVP_PKEY* key);

// Reads the identity whose key stands in the one file, and whose certificates, its own first, in
// the other. kInvalid where they don't belong together.
Result<SigningIdentity> readIdentity(const std::string& keyPath,
                                     const std::string& certificatesPath);

}  // namespace platform
