#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

// An open program and its signature, neither of which has been checked.
struct SignedProgram {
  UniqueFd file;
  struct stat status{};            // of the program as it was opened
  std::uint64_t payloadBytes = 0;  // what the signature covers, from the file's beginning
  std::uint8_t firstByte = 0;
  std::vector<std::uint8_t> signature;  // DER
  // Of the file that the signature was read from, where that is one of its own.
  FileFacts detachedFacts;
};

// Finds the signature of the program at `path`: the one at its end, else that beside it in
// NAME.p7s. errSecCSUnsigned where there is neither, errSecCSBadObjectFormat for a trailer that is
// forged, cut or stands on another one, and for what is not a regular file.
CodeSigningResult<SignedProgram> openSignedProgram(const std::string& path);

// That this is something that may be a program, by its kind of file.
CodeSigningResult<void> checkIsProgramFile(const std::string& path, const struct stat& status);

}  // namespace platform
