#pragma once

#include <string>

#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

namespace platform {

// Checks the bundle at `path`: the place of all that it holds, the signature of its seal, and all
// that the seal covers.
CodeSigningResult<VerifiedCode> verifyBundle(const std::string& path,
                                             const VerificationContext& context);

// What the signature of the bundle at `path` says. Nothing of it is checked but its form; the
// certificates are those that the signature brought along.
CodeSigningResult<SignatureStatement> readBundleSignature(const std::string& path);

}  // namespace platform
