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
// The result leaves nothing for a parser to guess, and its errors need no place but that in UTF-8.
Result<std::string_view> utf8OfXml(std::span<const std::uint8_t> bytes, std::string_view sourceName,
                                   std::string& converted);

}  // namespace platform
