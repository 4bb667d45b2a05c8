#pragma once

#include <string>

#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

namespace platform {

// Checks the program at `path`: its place, its own signature and, if it is in a bundle NAME.bundle,
// that bundle.
CodeSigningResult<VerifiedCode> verifyProgram(const std::string& path,
                                              const VerificationContext& context);

// The same without the bundle.
CodeSigningResult<VerifiedCode> verifyProgramAlone(const std::string& path,
                                                   const VerificationContext& context);

// Adds to `code` what the verdict on another part of it depends on.
void dependOn(VerifiedCode& code, const VerifiedCode& part);

// The content of the signature of the program at `path`. Checks only its form; the certificates are
// those in the signature.
CodeSigningResult<SignatureStatement> readProgramSignature(const std::string& path);

}  // namespace platform
