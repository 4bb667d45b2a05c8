#pragma once

#include <cstdint>
#include <span>

namespace platform {

// Whether the parts of a CMS signature that stand outside of what is signed, and that OpenSSL reads
// over, say the same as those inside: one digest algorithm, that of the one signer, and the version
// numbers that the signer's kind of name demands. Otherwise bytes could be changed unnoticed.
// `der` is signed data with one signer, as OpenSSL has read it.
bool isConsistentEnvelope(std::span<const std::uint8_t> der);

}  // namespace platform
