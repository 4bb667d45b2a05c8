#pragma once

#include <optional>
#include <string>

#include "Platform/Linux/Digests/OpenSslHandles.h"

namespace platform {

// What is wrong with a certificate for a purpose here, nothing where all is well; for a text that
// begins with the certificate's name. The rules are those of CertificateChain.h.

std::optional<std::string> faultOfKey(X509* certificate);

// Of the certificate's own signature, by its issuer.
std::optional<std::string> faultOfDigest(X509* certificate);

std::optional<std::string> faultOfIssuer(X509* certificate);

enum class SignerStanding { kIssued, kAnchor };
std::optional<std::string> faultOfSigner(X509* certificate, SignerStanding standing);

}  // namespace platform
