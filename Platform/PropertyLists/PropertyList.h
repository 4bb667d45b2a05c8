#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

enum class PropertyListFormat { kXml, kBinary };

// The value that a property list holds. What begins with "bplist00" is read as the binary format,
// all else as XML: UTF-8 with or without a byte order mark, or UTF-16.
//
// Strict: whatever the format does not define is an error, never a guess. Two readings are kept
// because the platform's own tools have them: an integer may have a sign and may be hexadecimal
// ("0x1F"), a real may be "nan", "inf" or "infinity" with a sign, in any letter case. White space
// around a number or a date is ignored; comments and processing instructions count for nothing.
// Sets and UIDs of the binary format are refused, its null is the null marker.
//
// `sourceName` (a file's name) begins the text of every error, followed by the place:
// "Service.plist:12:5: ..." with line and column of XML, both from 1 and columns in characters, or
// "Service.plist: offset 57: ..." with the byte of a binary list. The code is kInvalid for
// malformed input, kExhausted for what is over a limit of PropertyListLimits.h.
//
// Safe on any thread; never blocks; time and memory are bounded by the limits.
Result<Value> readPropertyList(std::span<const std::uint8_t> bytes, std::string_view sourceName);
Result<Value> readPropertyList(std::string_view bytes, std::string_view sourceName);

// The bytes of a property list that holds `value`: in XML, laid out as the platform's tools do it;
// equal values in equal order always give equal bytes. Reading them gives the same value back, with
// its order and with integers, reals and booleans kept apart, except that XML holds whole seconds
// (a date is rounded down) and knows one NaN.
//
// What the format can't hold is an error that names the key path ("Services/com.x/Args/2: ..."):
// nil, a remote object, ill-formed UTF-8, a date outside the years 1 to 9999, in XML also the null
// marker and the characters that XML excludes. kExhausted for what readPropertyList() would refuse
// as too deep, too many or too large.
Result<Data> writePropertyList(const Value& value, PropertyListFormat format);

}  // namespace platform
