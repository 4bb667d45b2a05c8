#pragma once

#include <string>

#include "Platform/Linux/Certificates/CmsSigner.h"
#include "Platform/Linux/CodeSigning/BundleSeal.h"
#include "Platform/Values/Error.h"

namespace platform {

// Each of these functions replaces an older signature. Files are replaced atomically: a reader
// finds the old or the new file, never a part. They keep their permission bits, their extended
// attributes with the capabilities and, if the caller may give files away, their owner. Symbolic
// links are refused. On failure the files are unchanged. All block on the disk.

// Appends a signature to a program. Programs and kernel modules may have one; a file that is read
// to its end, like a script, may not.
Result<void> signProgram(const std::string& path, const SigningIdentity& identity,
                         const SigningOptions& options);

// Writes a signature of the file to NAME.p7s beside it.
Result<void> signDetached(const std::string& path, const SigningIdentity& identity,
                          const SigningOptions& options);

// Seals a bundle. Sign its programs first.
Result<void> signBundle(const std::string& path, const SigningIdentity& identity,
                        const SigningOptions& options,
                        SealPrograms programs = SealPrograms::kByContent);

// Whether the file is an ELF program, so that a signature can be appended.
Result<bool> canCarrySignature(const std::string& path);

}  // namespace platform
