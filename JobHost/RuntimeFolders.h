#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace jobhost {

struct RuntimeFolders {
  std::string runtime;  // the host's files
  std::string mach;     // the sockets of jobs' services
};

// The folders below `root` that the host writes, made where they are missing. Others may look into
// them but must not be able to write: kDenied where they can, or where one is somebody else's or a
// symbolic link.
platform::Result<RuntimeFolders> makeRuntimeFolders(const std::string& root);

// The number of the boot that goes on.
platform::Result<std::string> readBootId();

}  // namespace jobhost
