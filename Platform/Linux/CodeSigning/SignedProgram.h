#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

// An open program and its signature, both unchecked.
struct SignedProgram {
  UniqueFd file;
  struct stat status{};            // of the program when it was found
  std::uint64_t payloadBytes = 0;  // the signature covers these bytes from the start of the file
  std::uint8_t firstByte = 0;
  std::vector<std::uint8_t> signature;  // DER
  // The state of the detached signature's file, if there is one.
  FileFacts detachedFacts;
};

// Finds the signature of the program at `path`: the one at its end, else the one beside it in
// NAME.p7s. Fails with errSecCSUnsigned if there is neither, and with errSecCSBadObjectFormat if a
// trailer is forged, cut off or nested, or the file is not a regular one.
CodeSigningResult<SignedProgram> openSignedProgram(const std::string& path);

// Whether a file of this kind can be a program.
CodeSigningResult<void> checkIsProgramFile(const std::string& path, const struct stat& status);

}  // namespace platform
