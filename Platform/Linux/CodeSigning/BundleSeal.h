#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Linux/CodeSigning/BundleContents.h"
#include "Platform/Values/Value.h"

namespace platform {

// The list of what a bundle holds, CodeResources: a property list
//
//   files2: { "Contents/Linux/program": { hash2: <SHA-256 of the file> },
//             "Contents/current":       { symlink: "versions/2" } }
//
// with paths relative to the bundle. Folders are not listed: an empty one means nothing.
struct SealedItem {
  Data sha256;           // of a file
  std::string linkText;  // of a symbolic link; empty for a file
};
using BundleSeal = std::map<std::string, SealedItem, std::less<>>;

// Reads a list; what it does not define is errSecCSBadResource.
CodeSigningResult<BundleSeal> readBundleSeal(std::span<const std::uint8_t> bytes,
                                             const std::string& name);

// The list of a bundle with these contents. Reads all its files.
CodeSigningResult<Data> makeBundleSeal(const BundleContents& contents);

// Whether a bundle with these contents is what was sealed. First that nothing was added, is missing
// or leads elsewhere, then each file. Reads all its files.
CodeSigningResult<void> checkBundleSeal(const BundleSeal& seal, const BundleContents& contents,
                                        const std::string& bundle);

}  // namespace platform
