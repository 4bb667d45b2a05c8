#pragma once

#include <source_location>
#include <string_view>

#include "Platform/Values/KernelIds.h"

namespace platform {

// The fields of a line beside its text, for programs that search the journal. The other sinks leave
// them out.
struct LogFields {
  const char* messageId = nullptr;  // one of LogMessageIds.h, or null; it is never freed
  std::string_view label{};         // of the service that the line is about, or empty
  ProcessId process = 0;            // of that service, or 0
  std::source_location where{};     // line 0 if it is unknown
};

}  // namespace platform
