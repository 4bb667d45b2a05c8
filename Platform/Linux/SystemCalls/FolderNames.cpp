#include "Platform/Linux/SystemCalls/FolderNames.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <tuple>

#include <dirent.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

struct FolderCloser {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

using OpenFolder = std::unique_ptr<DIR, FolderCloser>;

Result<void> eachNameIn(const OpenFolder& folder, const std::string& context,
                        const std::function<bool(std::string_view name)>& each) {
  if (!folder) return std::unexpected(systemError(context));
  for (;;) {
    errno = 0;  // The end of the folder does not set it.
    const dirent* const entry = ::readdir(folder.get());
    if (!entry && errno != 0) return std::unexpected(systemError(context));
    if (!entry) return {};
    const std::string_view name = entry->d_name;
    if (name != "." && name != ".." && !each(name)) return {};
  }
}

}  // namespace

Result<void> eachNameInFolder(const std::string& path,
                              const std::function<bool(std::string_view name)>& each) {
  return eachNameIn(OpenFolder(::opendir(path.c_str())), path, each);
}

Result<void> eachNameInFolder(UniqueFd folder,
                              const std::function<bool(std::string_view name)>& each) {
  const OpenFolder entries(::fdopendir(folder.get()));
  if (entries) std::ignore = folder.release();
  return eachNameIn(entries, "reading a folder", each);
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
