#pragma once

#include <string>
#include <string_view>

#include "Platform/Logging/LogSink.h"

namespace platform {

// Adds `text` to `line` such that the line stays one line of plain UTF-8 whatever the text holds,
// and that the text can be had back:
//
//   \\         a backslash
//   \n \r \t   line feed, carriage return, tab
//   \xHH       (two lower-case hexadecimal digits) any other byte of a control character (C0, DEL,
//              C1), of a line or paragraph separator, or of what is not UTF-8, and each character
//              of `reserved`
//
// A backslash in the result always begins one of these. `reserved` holds ASCII characters that mean
// something to the line's layout.
void appendEscaped(std::string& line, std::string_view text, std::string_view reserved = {});

// The platform's name of a level: "Emergency", "Alert", "Critical", "Error", "Warning", "Notice",
// "Info" or "Debug".
std::string_view levelName(AslLevel level);

}  // namespace platform
