#include "Platform/Linux/Files/ParentFolders.h"

#include <cerrno>

#include <sys/stat.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<void> makeParentFolders(const std::string& path) {
  for (std::size_t slash = path.find('/', 1); slash != path.npos;
       slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
      return std::unexpected(systemError("making " + folder));
    }
  }
  return {};
}

}  // namespace platform
