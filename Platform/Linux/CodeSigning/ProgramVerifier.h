#pragma once

#include <string>

#include "Platform/Linux/CodeSigning/SignatureVerifier.h"

namespace platform {

// Checks the program at `path`: its place, its own signature and, where it is a part of a bundle
// NAME.bundle, that bundle.
CodeSigningResult<VerifiedCode> verifyProgram(const std::string& path,
                                              const VerificationContext& context);

// What the signature of the program at `path` says. Nothing of it is checked but its form; the
// certificates are those that the signature brought along.
CodeSigningResult<SignatureStatement> readProgramSignature(const std::string& path);

}  // namespace platform
