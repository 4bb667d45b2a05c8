#pragma once

#include <optional>
#include <string>

#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

// Each function returns why a certificate is unfit, or std::nullopt. The reason continues a text
// that begins with the certificate's name. The rules are listed in CertificateChain.h.

std::optional<std::string> faultOfKey(X509* certificate);

// Checks the digest of the issuer's signature on the certificate.
std::optional<std::string> faultOfDigest(X509* certificate);

std::optional<std::string> faultOfIssuer(X509* certificate);

enum class SignerStanding { kIssued, kAnchor };
std::optional<std::string> faultOfSigner(X509* certificate, SignerStanding standing);

}  // namespace platform
