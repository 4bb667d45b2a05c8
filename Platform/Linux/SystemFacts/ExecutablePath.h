#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace platform {

// The target of a process's "exe" link at `link`: the full path of its executable, also if the file
// has been deleted or replaced since. Fails with kNotFound if the process has no executable (a
// kernel thread, a zombie) or one without a path.
Result<std::string> executablePathOfLink(const std::string& link);

// The full path of this program's executable, without symbolic links.
Result<std::string> runningExecutablePath();

}  // namespace platform
