#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/Certificates/CertificateChain.h"
#include "Platform/Linux/Certificates/CmsSignature.h"
#include "Platform/Linux/CodeSigning/AnchorStore.h"
#include "Platform/Linux/CodeSigning/FileFact.h"
#include "Platform/Linux/CodeSigning/TrustedPlace.h"

namespace platform {

// What a check rests on besides the code.
struct VerificationContext {
  const AnchorSet& anchors;
  const TrustedPlace& place;
  std::chrono::sys_seconds now;
};

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

// Content as a signature covers it.
struct DigestedContent {
  std::vector<std::uint8_t> digest;
  std::uint8_t firstByte = 0;
};
using DigestContent = std::function<CodeSigningResult<DigestedContent>(const EVP_MD* kind)>;

// Checks a detached signature in this order: its form, its signer, the signer's chain to an anchor
// at the time of signing (now where it tells none), and only then the content, so that nobody's
// signature but a trusted one's costs the reading of it.
CodeSigningResult<VerifiedSignature> verifySignature(std::span<const std::uint8_t> der,
                                                     const std::string& name,
                                                     const VerificationContext& context,
                                                     const DigestContent& content);

// What a signature says, without checking more than its form.
CodeSigningResult<SignatureStatement> readSignature(std::span<const std::uint8_t> der,
                                                    const std::string& name);

// Checks the program at `path`: its place, its own signature and, where it is a part of a bundle
// NAME.bundle, that bundle.
CodeSigningResult<VerifiedCode> verifyProgram(const std::string& path,
                                              const VerificationContext& context);

// Checks the bundle at `path`: the place of all that it holds, the signature of its seal, and all
// that the seal covers.
CodeSigningResult<VerifiedCode> verifyBundle(const std::string& path,
                                             const VerificationContext& context);

// What the signature of the program or bundle at `path` says. Nothing of it is checked but its
// form; the certificates are those that the signature brought along.
CodeSigningResult<SignatureStatement> readProgramSignature(const std::string& path);
CodeSigningResult<SignatureStatement> readBundleSignature(const std::string& path);

}  // namespace platform
