#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// The text of an XML document as well-formed UTF-8 without NUL and byte order mark: a part of
// `bytes` or, if these are UTF-16, of `converted`, which must live as long as the result. Fails for
// any other encoding, and if the declaration contradicts the bytes.
//
// The result leaves nothing for libxml2 to guess: from four bytes it would guess UCS-4 and EBCDIC
// among others, report ill-formed text imprecisely or to standard error, and accept some of it.
Result<std::string_view> utf8OfXml(std::span<const std::uint8_t> bytes, std::string_view sourceName,
                                   std::string& converted);

}  // namespace platform
