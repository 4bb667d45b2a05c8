#pragma once

#include <cstddef>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// Opens a file for reading that somebody else may have put there: a symbolic link is not followed,
// a pipe or device is not waited for, and what is not a regular file is kInvalid. A missing file is
// kNotFound.
Result<UniqueFd> openRegularFile(const std::string& path);

// The next bytes of a descriptor, to its end or `maximumBytes`, whichever comes first. `name` is
// for the error's text.
Result<std::string> readAtMost(int descriptor, std::size_t maximumBytes, const std::string& name);

// All that is left of a descriptor; kExhausted when that is more than `maximumBytes`.
Result<std::string> readToEnd(int descriptor, std::size_t maximumBytes, const std::string& name);

}  // namespace platform
