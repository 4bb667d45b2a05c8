#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/FileFact.h"

namespace platform {

// The most files, folders and symbolic links that a bundle may hold, and how deep.
inline constexpr std::size_t kMaxBundleItems = 16'384;
inline constexpr std::size_t kMaxBundleDepth = 32;

// Where the seal of the bundle at `path` lies: NAME.bundle/Contents/_CodeSignature (so
// for every name of a bundle, see Platform/Files/Bundle.h), and
// FOLDER/_CodeSignature in any other (a flat bundle).
std::string sealFolderOfBundle(std::string_view path);
inline constexpr std::string_view kSealListName = "CodeResources";
inline constexpr std::string_view kSealSignatureName = "CodeSignature";

// The bundle, NAME.bundle, that the program at `path` is a part of: the outermost, whose seal
// covers the others. Empty where there is none. Looks at the path only.
std::string bundleAroundProgram(std::string_view path);

// What a bundle's seal covers: everything in it but the seal itself.
struct BundleContents {
  struct Item {
    std::string path;      // absolute
    std::uint64_t size;    // of a file
    bool isLink;           // else it is a file
    std::string linkText;  // where a link leads, as it says itself
  };
  // By paths relative to the bundle.
  std::map<std::string, Item, std::less<>> items;
  // The folders, files and links that were looked at.
  FileFacts facts;
};

// Lists a bundle. Refused with errSecCSBadResource: what is neither a file, a folder nor a link, a
// link that leads out of the bundle or nowhere, and a bundle over the bounds.
CodeSigningResult<BundleContents> listBundle(const std::string& path);

}  // namespace platform
