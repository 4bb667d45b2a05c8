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

// What a signature of ours says besides the content.
struct SigningOptions {
  std::optional<std::string> identifier;
  std::chrono::sys_seconds time;
};

// A detached CMS signature (DER) with SHA-256 over a content of this digest. It carries the chain
// of `identity`, and puts under the signature: the time, the identifier, and the digests of the
// chain's certificates, so that none can be taken away or exchanged.
Result<Data> makeCmsSignature(const SigningIdentity& identity, const SigningOptions& options,
                              std::span<const std::uint8_t> sha256);

}  // namespace platform
