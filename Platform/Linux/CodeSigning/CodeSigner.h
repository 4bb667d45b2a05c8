#pragma once

#include <string>

#include "Platform/Linux/Certificates/CmsSigner.h"
#include "Platform/Values/Error.h"

namespace platform {

// Each of these replaces an older signature. Files are replaced at once (whoever opens one finds
// the old or the new, whole) and keep their permission bits and, where the caller may give files
// away, their owner. Symbolic links are refused, not followed. On failure the files are as they
// were. They block on the disk.

// Appends a signature to a program. Programs and modules may carry one; what is read to its end,
// like a script, may not.
Result<void> signProgram(const std::string& path, const SigningIdentity& identity,
                         const SigningOptions& options);

// Writes a signature of the file into NAME.p7s beside it.
Result<void> signDetached(const std::string& path, const SigningIdentity& identity,
                          const SigningOptions& options);

// Seals a bundle. What it holds must have been signed before, where it is to be.
Result<void> signBundle(const std::string& path, const SigningIdentity& identity,
                        const SigningOptions& options);

// Whether the file is an ELF program, which can carry a signature at its end.
Result<bool> canCarrySignature(const std::string& path);

}  // namespace platform
