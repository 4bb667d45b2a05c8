#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

enum class PropertyListFormat { kXml, kBinary };

// The value in a property list. A list that begins with "bplist00" is read as the binary format,
// any other as XML: UTF-8 with or without a byte order mark, or UTF-16.
//
// The reader is strict: anything that the format does not define is an error. Two exceptions exist,
// because the platform's own tools have them: an integer may have a sign and may be hexadecimal
// ("0x1F"), and a real may be "nan", "inf" or "infinity" with a sign, in any letter case. White
// space around a number or a date, comments and processing instructions are ignored. Sets and UIDs
// of the binary format are refused; its null is the null marker.
//
// The text of every error begins with `sourceName` (a file's name) and the place:
// "Service.plist:12:5: ..." with line and column of XML, both from 1 and columns in characters, or
// "Service.plist: offset 57: ..." with the byte of a binary list. The code is kInvalid for
// malformed input, and kExhausted beyond a limit of PropertyListLimits.h.
//
// Any thread may call it. It never blocks; the limits bound its time and memory.
Result<Value> readPropertyList(std::span<const std::uint8_t> bytes, std::string_view sourceName);
Result<Value> readPropertyList(std::string_view bytes, std::string_view sourceName);

// The bytes of a property list with `value`. XML has the layout of the platform's tools. Equal
// values in equal order always give equal bytes. Reading them gives the same value, with the same
// order, and with integers, reals and booleans kept apart, except that XML has whole seconds (a
// date is rounded down) and only one NaN.
//
// A value that the format can't represent is an error with its key path ("Services/com.x/Args/2:
// ..."): nil, a remote object, ill-formed UTF-8, a date outside of the years 1 to 9999, and in XML
// also the null marker and the characters that XML excludes. Fails with kExhausted if
// readPropertyList() would refuse the list as too deep, too many or too large.
Result<Data> writePropertyList(const Value& value, PropertyListFormat format);

}  // namespace platform
