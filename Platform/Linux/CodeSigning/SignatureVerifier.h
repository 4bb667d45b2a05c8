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

// The inputs of a check besides the code.
struct VerificationContext {
  const AnchorSet& anchors;
  const TrustedPlace& place;
  std::chrono::sys_seconds now;
};

// The digest of signed content.
struct DigestedContent {
  std::vector<std::uint8_t> digest;
  std::uint8_t firstByte = 0;
};
using DigestContent = std::function<CodeSigningResult<DigestedContent>(const EVP_MD* kind)>;

// Checks a detached signature in this order: its form, its time, which must not be later than now
// but for five minutes, its signer, the signer's chain to an anchor at the time of signing (now if
// it states none), the signed attributes, and last the content. So a forged signature costs the
// reading of the content only if it has no signed attributes.
CodeSigningResult<VerifiedSignature> verifySignature(std::span<const std::uint8_t> der,
                                                     const std::string& name,
                                                     const VerificationContext& context,
                                                     const DigestContent& content);

// The content of a signature. Checks only its form.
CodeSigningResult<SignatureStatement> readSignature(std::span<const std::uint8_t> der,
                                                    const std::string& name);

}  // namespace platform
