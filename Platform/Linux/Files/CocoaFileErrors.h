#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// The error object for a system call on `path` that failed with `errorNumber`, for reading and for
// writing a file.
NSError cocoaReadError(const std::string& path, int errorNumber);
NSError cocoaWriteError(const std::string& path, int errorNumber);

}  // namespace platform
