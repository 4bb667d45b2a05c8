#pragma once

#include <string_view>
#include <type_traits>

#include "Platform/Logging/LogSink.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {

// Where NSLog writes. Both outlive it.
struct NSLogOutput {
  SystemLog& systemLog;
  // Puts its own prefix (time, program, process) before the text and writes it in one piece.
  LogSink& standardError;
};

// Writes a finished text to standard error and, at level 4, to the default client of the system
// log. Any thread; a standard error that takes nothing costs the text there and nothing else.
void NSLogText(const NSLogOutput& output, std::string_view text);

template <typename... Arguments>
void NSLog(const NSLogOutput& output, FormatString<std::type_identity_t<Arguments>...> format,
           const Arguments&... arguments) {
  NSLogText(output, stringWithFormat(format, arguments...));
}

}  // namespace platform
