#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace jobhost {

struct RuntimeFolders {
  std::string runtime;  // the host's files
  std::string mach;     // the sockets of jobs' services
};

// The folders below `root` that the host writes. Makes them if they are missing. Others may read
// them but not write: kDenied if they can, or if one belongs to another user or is a symbolic link.
platform::Result<RuntimeFolders> makeRuntimeFolders(const std::string& root);

// The id of the current boot.
platform::Result<std::string> readBootId();

}  // namespace jobhost
