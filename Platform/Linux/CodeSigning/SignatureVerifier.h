#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/AnchorStore.h"
#include "Platform/Linux/CodeSigning/TrustedPlace.h"
#include "Platform/Linux/CodeSigning/VerifiedCode.h"

namespace platform {

// What a check rests on besides the code.
struct VerificationContext {
  const AnchorSet& anchors;
  const TrustedPlace& place;
  std::chrono::sys_seconds now;
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

}  // namespace platform
