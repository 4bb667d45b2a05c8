#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// Calls `each` with every name in a folder but "." and "..", in the order of the disk, until it
// returns false. Fails with kSystem and the folder's path, maybe after some names.
Result<void> eachNameInFolder(const std::string& path,
                              const std::function<bool(std::string_view name)>& each);
// The same for an open folder, which is read from its position. It is closed afterwards, so until
// then `each` may use its number.
Result<void> eachNameInFolder(UniqueFd folder,
                              const std::function<bool(std::string_view name)>& each);

// The names in byte order. If there are more than `most`, it returns `most` + 1 of them. Fails like
// eachNameInFolder().
Result<std::vector<std::string>> namesInFolder(const std::string& path, std::size_t most);

}  // namespace platform
