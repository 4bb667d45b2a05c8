#pragma once

#include <cstddef>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// Opens for reading a file that another user may have put there: does not follow a symbolic link,
// does not block on a pipe or device, and fails with kInvalid if it is not a regular file. Fails
// with kNotFound if there is none.
Result<UniqueFd> openRegularFile(const std::string& path);

// Reads from a descriptor until its end or `maximumBytes`, whichever comes first. `name` is for the
// error's text.
Result<std::string> readAtMost(int descriptor, std::size_t maximumBytes, const std::string& name);

// Reads from a descriptor to its end. Fails with kExhausted if that is more than `maximumBytes`.
Result<std::string> readToEnd(int descriptor, std::size_t maximumBytes, const std::string& name);

}  // namespace platform
