#pragma once

#include <string>

#include "Platform/Error.h"
#include "Platform/Value.h"

namespace platform {

// FileManager::createDirectory() of a path without zero bytes.
Result<void, NSError> createFolders(const std::string& path, const Dictionary* attributes);

}  // namespace platform
