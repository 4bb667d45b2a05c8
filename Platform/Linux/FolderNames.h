#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Platform/CodeSignature.h"

namespace platform {

// The names in a folder in the order of their bytes, without "." and ".."; `most` + 1 of them where
// there are more than `most`.
CodeSigningResult<std::vector<std::string>> namesInFolder(const std::string& path,
                                                          std::size_t most);

}  // namespace platform
