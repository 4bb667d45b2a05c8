#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// A file in memory that nobody can change any more, whoever holds its descriptor.
Result<UniqueFd> makeSealedFile(std::span<const char> content);

// The whole content of such a file. Fails with kInvalid where the file is not one, could still be
// changed, or is larger than `limit`. Never blocks: other kinds of file are not read at all.
Result<std::string> readSealedFile(int descriptor, std::size_t limit);

}  // namespace platform
