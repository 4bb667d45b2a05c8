#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// An extension on disk, NAME.kext/Contents/. Its program offers its control. A module of the kernel
// offers none by itself, so a bundle with a module has a program, too.
struct KextBundle {
  std::string path;
  std::string identifier;
  std::string programPath;                  // offers the control
  std::optional<std::string> kernelModule;  // a module's name or alias
};

// The key of an Info.plist and of an extension's job.
inline constexpr char kKernelModuleKey[] = "OSKernelModule";

// The folder of a bundle's program.
inline constexpr std::string_view kProgramsFolder = "/Contents/Linux/";

// A folder with more entries is not searched.
inline constexpr std::size_t kMaxKextsInFolder = 1024;

// Reads the Info.plist of the bundle at `path`. Fails with kInvalid if that describes no extension.
Result<KextBundle> readKextBundle(const std::string& path);

// The extension with this identifier in the first of `folders` that has one. Each is a folder of
// bundles NAME.kext, or such a bundle itself; missing folders are skipped, and one that can't be
// read is an error. Fails with kNotFound if there is none; the error names a bundle that could not
// be read. If that says nothing about the bundle, for lack of descriptors for instance, the failure
// is that of an unchecked extension (isUnchecked()). Fails with kInvalid if two bundles of one
// folder claim the identifier, because either might be meant, and with kExhausted if a folder has
// more than kMaxKextsInFolder entries.
Result<KextBundle> findKextBundle(const std::string& identifier,
                                  const std::vector<std::string>& folders);

}  // namespace platform
