#include "Platform/Linux/Files/FolderNames.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <dirent.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

}  // namespace

Result<void> eachNameInFolder(const std::string& path,
                              const std::function<bool(std::string_view name)>& each) {
  const std::unique_ptr<DIR, FolderCloser> folder(::opendir(path.c_str()));
  if (!folder) return std::unexpected(systemError(path));
  for (;;) {
    errno = 0;  // The end of the folder does not set it.
    const dirent* const entry = ::readdir(folder.get());
    if (!entry && errno != 0) return std::unexpected(systemError(path));
    if (!entry) return {};
    const std::string_view name = entry->d_name;
    if (name != "." && name != ".." && !each(name)) return {};
  }
}

Result<std::vector<std::string>> namesInFolder(const std::string& path, std::size_t most) {
  std::vector<std::string> names;
  const auto read = eachNameInFolder(path, [&](std::string_view name) {
    names.emplace_back(name);
    return names.size() <= most;
  });
  if (!read) return std::unexpected(read.error());
  std::ranges::sort(names);
  return names;
}

}  // namespace platform
