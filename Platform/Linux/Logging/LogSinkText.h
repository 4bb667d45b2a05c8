#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "Platform/Logging/LogSink.h"

namespace platform {

// Appends `text` to `line` so that the line stays one line of valid UTF-8 without control
// characters, and the text can be recovered:
//
//   \\         a backslash
//   \n \r \t   line feed, carriage return, tab
//   \xHH       (two lower-case hexadecimal digits) any other byte of a control character (C0, DEL,
//              C1), of a line or paragraph separator, or of invalid UTF-8, and each character
//              of `reserved`
//
// A backslash in the result always begins one of these. `reserved` are ASCII characters with a
// meaning in the line's format.
void appendEscaped(std::string& line, std::string_view text, std::string_view reserved = {});

// The platform's name of a level: "Emergency", "Alert", "Critical", "Error", "Warning", "Notice",
// "Info" or "Debug".
std::string_view levelName(AslLevel level);

// When the message was logged.
timespec timeOf(const LogRecord& record);

}  // namespace platform
