#include "Platform/Linux/Files/FolderNames.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "Platform/Linux/Files/FolderHandle.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
Result<std::vector<std::string>> namesInFolder(const std::string& path, std::size_t most) {
  const FolderHandle folder(::opendir(path.c_str()));
  if (!folder) return std::unexpected(systemError(path));
  std::vector<std::string> names;
  while (names.size() <= most) {
    errno = 0;
    const dirent* const entry = ::readdir(folder.get());
    if (!entry && errno != 0) return std::unexpected(systemError(path));
    if (!entry) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::ranges::sort(names);
  return names;
}

}  // namespace platform
