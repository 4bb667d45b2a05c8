#pragma once

#include <string>

#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

namespace platform {

// Checks the bundle at `path`: the place of all files in it, the signature of its seal, and all
// files that the seal covers.
CodeSigningResult<VerifiedCode> verifyBundle(const std::string& path,
                                             const VerificationContext& context);

// The content of the signature of the bundle at `path`. Checks only its form; the certificates are
// those in the signature.
CodeSigningResult<SignatureStatement> readBundleSignature(const std::string& path);

}  // namespace platform
