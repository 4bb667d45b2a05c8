#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "Platform/Linux/Certificates/CertificateMaker.h"
#include "Platform/Linux/Digests/OpenSslHandles.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Attributes of a new signature.
struct SigningOptions {
  std::optional<std::string> identifier;
  std::chrono::sys_seconds time;
};

// A detached CMS signature (DER) over content with this SHA-256 digest. It contains the chain of
// `identity` and signs also the time, the identifier and the digests of the chain's certificates,
// so that no certificate can be removed or exchanged.
Result<Data> makeCmsSignature(const SigningIdentity& identity, const SigningOptions& options,
                              std::span<const std::uint8_t> sha256);

}  // namespace platform
