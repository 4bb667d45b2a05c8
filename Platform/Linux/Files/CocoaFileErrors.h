#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// The error object for a system call on `path` that failed with `errorNumber`: what it means where
// a file is read, and where one is written.
NSError cocoaReadError(const std::string& path, int errorNumber);
NSError cocoaWriteError(const std::string& path, int errorNumber);

}  // namespace platform
