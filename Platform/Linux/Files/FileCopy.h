#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// FileManager::overwriteWithCopy() for paths without zero bytes.
Result<void, NSError> overwriteWithCopyOfFile(const std::string& source,
                                              const std::string& destination);

}  // namespace platform
