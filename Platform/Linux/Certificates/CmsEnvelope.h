#pragma once

#include <cstdint>
#include <span>

namespace platform {

// Whether the unsigned parts of a CMS signature agree with the signed ones: one digest algorithm,
// which is the signer's, and the version numbers that fit the signer's kind of name. OpenSSL
// ignores these parts, so without the check bytes could be changed unnoticed. `der` is signed data
// with one signer that OpenSSL has accepted.
bool isConsistentEnvelope(std::span<const std::uint8_t> der);

}  // namespace platform
