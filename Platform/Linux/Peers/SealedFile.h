#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// A memory file whose content nobody can change any more, even with its descriptor.
Result<UniqueFd> makeSealedFile(std::span<const char> content);

// The whole content of such a file. Fails with kInvalid if it is not one, could still be changed,
// or is larger than `limit`. Never blocks, because other kinds of files are not read.
Result<std::string> readSealedFile(int descriptor, std::size_t limit);

}  // namespace platform
