#pragma once

#include <string>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// FileManager::createDirectory() for a path without zero bytes.
Result<void, NSError> createFolders(const std::string& path, const Dictionary* attributes);

}  // namespace platform
