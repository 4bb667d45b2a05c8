#pragma once

#include <string>

#include "Platform/Values/Error.h"

namespace jobhost {

struct RuntimeFolders {
  std::string runtime;  // the host's files
  std::string mach;     // the sockets of jobs' services
  std::string output;   // the pipes of what services print
};

// The folders below `root` that the host writes. Makes them if they are missing. Others may read
// them but not write: kDenied if they can, or if one belongs to another user or is a symbolic link.
platform::Result<RuntimeFolders> makeRuntimeFolders(const std::string& root);

// Names the current boot and, behind a slash, the namespace of process numbers. A number means the
// same process only within both: a container that is restarted in the same boot begins with small
// numbers again.
platform::Result<std::string> readBootId();

}  // namespace jobhost
