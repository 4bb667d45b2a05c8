#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Files/FileManager.h"
#include "Platform/Texts/Range.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

// The product's file operations. `std::nullopt` is nil. Any thread; a call blocks for the disk. A
// failure without an error is `NSError()`: the caller's error stays untouched.
namespace NSFileManagerExtensions {

using platform::FileManager;
using platform::NSError;
using platform::Result;

// Attributes for files that root makes: owner 0, group 80, and 755 for a folder, 644 for a file.
// Made on first use and kept.
const platform::Dictionary& rootAdminDirectoryAttributes();
const platform::Dictionary& rootAdminFileAttributes();

// Makes a folder and its missing parents, each with the attributes (null for none); an existing
// folder is a success. The receiver does not matter: the program's shared file manager makes them.
Result<void, NSError> createDeepDirectoryAtPath(FileManager& receiver, std::string_view path,
                                                const platform::Dictionary* attributes);

// Replaces `toPath` by a copy of a regular file, atomically, and then gives it the source's
// attributes. Fails without an error if a path is nil or white space.
Result<void, NSError> copyAndOverwriteItemAtPath(FileManager& receiver,
                                                 std::optional<std::string_view> path,
                                                 std::optional<std::string_view> toPath);

// The limit of the paths that the two functions below return; they fail above it, since a folder's
// content could otherwise take any amount of memory.
inline constexpr std::size_t kMaximumPaths = 1 << 18;

// A path that begins with "~/" is returned below each entry of the folder of the homes, in that
// folder's order, whether the entry is a home or not; any other path is returned alone. The paths
// need not exist. Empty for a path that is nil or white space.
Result<std::vector<std::string>, NSError> expandPathForAllUsers(
    FileManager& receiver, std::optional<std::string_view> path);

// The existing paths among the expanded ones. Their last component may hold a wildcard: its first
// "*" matches any text, further ones match themselves. Letter case does not matter with a wildcard,
// and does without. The texts before and after the "*" may overlap in a name, deliberately: "ab*ba"
// matches "aba". A bare "*" matches every entry, hidden ones too. A match is the folder, a slash
// and the name, with one slash below the root: "/*" gives "/a", not "//a".
//
// In the order of the folders. A folder that does not exist has no matches; a folder that can't be
// read is an error, without any matches.
Result<std::vector<std::string>, NSError> matchesForWildCardedPath(
    FileManager& receiver, std::optional<std::string_view> path);

// The matcher's error if the platform raises an exception when it takes the text before or after
// the "*". No text raises it here.
NSError substringError(platform::NSRange prefixRange, platform::NSRange suffixRange,
                       const std::optional<std::string>& prefix,
                       const std::optional<std::string>& suffix,
                       const platform::NSException& exception);

}  // namespace NSFileManagerExtensions
