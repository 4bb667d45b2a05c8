#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// The names in a folder in the order of their bytes, without "." and ".."; `most` + 1 of them where
// there are more than `most`. Fails with kSystem and the folder's path.
Result<std::vector<std::string>> namesInFolder(const std::string& path, std::size_t most);

}  // namespace platform
