#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Error.h"

namespace platform {

// An extension on disk, NAME.kext/Contents/. It has a program or a module, never both.
struct KextBundle {
  std::string path;
  std::string identifier;
  std::optional<std::string> programPath;   // of a user-space extension
  std::optional<std::string> kernelModule;  // a module's name or alias
};

// More bundles are not looked at in one folder.
inline constexpr std::size_t kMaxKextsInFolder = 1024;

// What the Info.plist of the bundle at `path` says. kInvalid where that makes no extension.
Result<KextBundle> readKextBundle(const std::string& path);

// The first extension of this identifier in `folders`, each a folder of bundles NAME.kext or such a
// bundle itself; folders that are not there are passed over. kNotFound where there is none; the
// error names bundles that could not be read.
Result<KextBundle> findKextBundle(const std::string& identifier,
                                  const std::vector<std::string>& folders);

}  // namespace platform
