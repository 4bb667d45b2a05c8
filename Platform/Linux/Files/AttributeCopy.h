#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// Gives one open file or folder the extended attributes of another: capabilities, access lists, and
// those of users. Those that the kernel computes from the content are left out. Fails if one can't
// be set, because a program without its capabilities is another program; a file system without
// attributes is no failure. Changing the owner or the content of `to` later takes its capabilities
// away. `path` is for the error's text.
Result<void> copyExtendedAttributes(int from, int to, const std::string& path);

}  // namespace platform
