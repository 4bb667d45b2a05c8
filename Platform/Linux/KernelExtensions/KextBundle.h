#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// An extension on disk, NAME.kext/Contents/. It has a program or a module, never both.
struct KextBundle {
  std::string path;
  std::string identifier;
  std::optional<std::string> programPath;   // of a user-space extension
  std::optional<std::string> kernelModule;  // a module's name or alias
};

// Where a bundle's program lies in it.
inline constexpr std::string_view kProgramsFolder = "/Contents/Linux/";

// A folder of bundles with more entries is not searched.
inline constexpr std::size_t kMaxKextsInFolder = 1024;

// What the Info.plist of the bundle at `path` says. kInvalid where that makes no extension.
Result<KextBundle> readKextBundle(const std::string& path);

// The extension of this identifier in the first of `folders` that has it, each a folder of bundles
// NAME.kext or such a bundle itself; folders that are not there are passed over. kNotFound where
// there is none: the error names a bundle that could not be read. kInvalid where two bundles of one
// folder claim the identifier, since which of them is meant can't be told; kExhausted where a
// folder has more than kMaxKextsInFolder entries.
Result<KextBundle> findKextBundle(const std::string& identifier,
                                  const std::vector<std::string>& folders);

}  // namespace platform
