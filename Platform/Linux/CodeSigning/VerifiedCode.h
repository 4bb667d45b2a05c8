#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Values/Value.h"

namespace platform {

// What a signature says of itself.
struct SignatureStatement {
  std::optional<std::string> identifier;
  std::optional<std::chrono::sys_seconds> signingTime;
  std::string digest;  // the algorithm's name
  Array certificates;  // DER, the signer's first
};

// A signature that holds. Before `notBefore` and from `notAfter` certificates of its chain are not
// yet, or no longer, valid.
struct VerifiedSignature {
  SignatureStatement statement;
  std::chrono::sys_seconds notBefore;
  std::chrono::sys_seconds notAfter;
};

// Code that is what its signer signed. The times are those of all signatures that cover it.
struct VerifiedCode {
  VerifiedSignature signature;
  FileFacts facts;  // that hold for as long as this is so
};

}  // namespace platform
