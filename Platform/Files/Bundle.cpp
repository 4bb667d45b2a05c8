#include "Platform/Files/Bundle.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>
#include <utility>

#include "Platform/Values/Value.h"

namespace platform {
namespace {

constexpr std::array<std::string_view, 3> kBundleSuffixes{".bundle", ".kext", ".app"};

struct Split {
  std::string_view folder;  // without a slash at its end; empty for the root folder
  std::string_view name;
};

Split splitLast(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == path.npos) return {{}, path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

// Whether a relative path stays below its base folder, apart from symbolic links.
bool staysInside(std::string_view path) {
  if (path.empty() || path.find('\0') != path.npos) return false;
  for (;;) {
    const std::size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    if (component.empty() || component == "." || component == "..") return false;
    if (slash == path.npos) return true;
    path.remove_prefix(slash + 1);
  }
}

}  // namespace

bool isBundleName(std::string_view name) {
  return std::ranges::any_of(kBundleSuffixes, [name](std::string_view suffix) {
    return name.ends_with(suffix) && name.size() > suffix.size();
  });
}

BundleLayout bundleLayoutOfExecutable(std::string_view executablePath) {
  const Split program = splitLast(executablePath);
  const Split programs = splitLast(program.folder);
  const Split contents = splitLast(programs.folder);
  const Split bundle = splitLast(contents.folder);
  if (programs.name == "Linux" && contents.name == "Contents" && isBundleName(bundle.name)) {
    const std::string inside(programs.folder);
    return {std::string(contents.folder), inside + "/Info.plist", std::string(executablePath),
            inside + "/Resources"};
  }
  const std::string folder(program.folder);
  const std::string path = folder.empty() ? "/" : folder;
  return {path, folder + "/Info.plist", std::string(executablePath), path};
}

Bundle::Bundle(BundleLayout layout, Dictionary infoDictionary)
    : layout_(std::move(layout)), infoDictionary_(std::move(infoDictionary)) {}

std::optional<std::string> Bundle::pathForResource(std::string_view name,
                                                   std::string_view extension) const {
  std::string file(name);
  if (!extension.empty()) {
    if (extension.front() != '.') file += '.';
    file += extension;
  }
  if (name.empty() || !staysInside(file)) return std::nullopt;

  std::string path = layout_.resourcePath;
  if (path != "/") path += '/';
  path += file;
  std::error_code error;
  const bool exists = std::filesystem::exists(path, error);
  if (error || !exists) return std::nullopt;
  return path;
}

}  // namespace platform
