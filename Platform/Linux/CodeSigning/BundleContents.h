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

// The limits of a bundle: its files, folders and symbolic links, and its depth.
inline constexpr std::size_t kMaxBundleItems = 16'384;
inline constexpr std::size_t kMaxBundleDepth = 32;

// The folder of the seal of the bundle at `path`: NAME.bundle/Contents/_CodeSignature (for every
// kind of bundle name, see Platform/Files/Bundle.h), and FOLDER/_CodeSignature for any other folder
// (a flat bundle).
std::string sealFolderOfBundle(std::string_view path);
inline constexpr std::string_view kSealListName = "CodeResources";
inline constexpr std::string_view kSealSignatureName = "CodeSignature";

// The bundle NAME.bundle that contains the program at `path`. If several do, the outermost, whose
// seal covers the others. Empty if there is none. Examines only the path's text.
std::string bundleAroundProgram(std::string_view path);

// The items that a bundle's seal covers: all but the seal itself.
struct BundleContents {
  struct Item {
    std::string path;      // absolute
    std::uint64_t size;    // of a file
    bool isLink;           // else it is a file
    std::string linkText;  // the target of a link, unresolved
  };
  // The keys are paths relative to the bundle.
  std::map<std::string, Item, std::less<>> items;
  // The folders, files and links that were examined.
  FileFacts facts;
};

// Lists a bundle. Fails with errSecCSBadResource if it contains anything but files, folders and
// links, a link that leads out of the bundle or nowhere, or more than the limits allow.
CodeSigningResult<BundleContents> listBundle(const std::string& path);

}  // namespace platform
