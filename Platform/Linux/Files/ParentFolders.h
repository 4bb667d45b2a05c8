#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// Makes the folders that lead to `path`, where they are missing, with mode 0755. The error is of
// kind kSystem.
Result<void> makeParentFolders(const std::string& path);

}  // namespace platform
