#pragma once

#include <string>
#include <string_view>

#include "Platform/Linux/Logging/FileLogSink.h"

namespace platform {

// The bounds of what is kept of one label's output: 3 MiB in three files.
inline constexpr FileLogSink::Limits kServiceOutputLimits{.bytes = std::uint64_t{1} << 20,
                                                          .kept = 2};

// The facility of the lines that services print.
inline constexpr std::string_view kServiceOutputFacility = "com.vantor.service.output";

// The file name that stands for a label: the label itself, with unusual characters as %XX. The end
// of a long one is replaced by a number.
std::string outputNameOf(std::string_view label);

// The folder of what services print, below the log's folder.
std::string serviceOutputFolder(const std::string& root);

// The file of what the label's processes print. Rotated files have a number behind this.
std::string serviceOutputFile(const std::string& root, std::string_view label);

}  // namespace platform
