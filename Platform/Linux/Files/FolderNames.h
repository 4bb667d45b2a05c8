#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// The names in a folder in byte order, without "." and "..". If there are more than `most`, it
// returns `most` + 1 of them. Fails with kSystem and the folder's path.
Result<std::vector<std::string>> namesInFolder(const std::string& path, std::size_t most);

}  // namespace platform
