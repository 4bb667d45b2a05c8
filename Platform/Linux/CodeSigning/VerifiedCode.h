#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Values/Value.h"
#include "Platform/Values/VerifiedFile.h"

namespace platform {

// The content of a signature.
struct SignatureStatement {
  std::optional<std::string> identifier;
  std::optional<std::chrono::sys_seconds> signingTime;
  std::string digest;  // the algorithm's name
  Array certificates;  // DER, the signer's first
};

// A valid signature. The certificates of its chain are valid from `notBefore` until before
// `notAfter`.
struct VerifiedSignature {
  SignatureStatement statement;
  std::chrono::sys_seconds notBefore;
  std::chrono::sys_seconds notAfter;
};

// Code that its signer signed. The times are those of all signatures that cover it.
struct VerifiedCode {
  VerifiedSignature signature;
  FileFacts facts;  // the verdict holds as long as these do
  std::optional<VerifiedFile> program = {};
};

}  // namespace platform
