#pragma once

#include <string_view>
#include <type_traits>

#include "Platform/Logging/LogSink.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Texts/StringFormat.h"

namespace platform {

// The outputs of NSLog. Both outlive it.
struct NSLogOutput {
  SystemLog& systemLog;
  // Adds its own prefix (time, program, process) and writes the text in one piece.
  LogSink& standardError;
};

// Writes a finished text to standard error and, at level 4, to the default client of the system
// log. Any thread may call it. If standard error fails, the text is lost only there.
void NSLogText(const NSLogOutput& output, std::string_view text);

template <typename... Arguments>
void NSLog(const NSLogOutput& output, FormatString<std::type_identity_t<Arguments>...> format,
           const Arguments&... arguments) {
  NSLogText(output, stringWithFormat(format, arguments...));
}

}  // namespace platform
