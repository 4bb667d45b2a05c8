#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// What a process's "exe" link says: the full path of its executable, also when the file has been
// deleted or replaced since. `link` is the link's path. Fails with kNotFound where the process has
// no executable (a kernel thread, a zombie) or none with a path.
Result<std::string> executablePathOfLink(const std::string& link);

// The full path of this program's executable, without symbolic links.
Result<std::string> runningExecutablePath();

}  // namespace platform
