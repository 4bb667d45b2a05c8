#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// The text of an XML document as well-formed UTF-8 without NUL and byte order mark: either a part
// of `bytes` or, where they are UTF-16, `converted`, which must live as long. An error for any
// other encoding, and where the declaration names another one than the bytes have.
//
// What comes out needs no guessing any more. libxml2 would guess, from four bytes, UCS-4 and EBCDIC
// among others, report what is ill-formed imprecisely or to standard error, and let some through.
Result<std::string_view> utf8OfXml(std::span<const std::uint8_t> bytes, std::string_view sourceName,
                                   std::string& converted);

}  // namespace platform
