#pragma once

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

// What the product asks of the file manager. `std::nullopt` is nil. Any thread; a call blocks as
// long as the disk does. A failure that has no error is `NSError()`: the caller's stays untouched.
namespace NSFileManagerExtensions {

using platform::FileManager;
using platform::NSError;
using platform::Result;

// For what is made as root: owner 0, group 80, and 755 for a folder, 644 for a file. Made on first
// use and kept.
const platform::Dictionary& rootAdminDirectoryAttributes();
const platform::Dictionary& rootAdminFileAttributes();

// Makes a folder and those on the way to it that are missing, each with the attributes (null for
// none); one that is there already is a success. The receiver does not matter: it is made by the
// file manager that the program shares.
Result<void, NSError> createDeepDirectoryAtPath(FileManager& receiver, std::string_view path,
                                                const platform::Dictionary* attributes);

// Puts a copy of a regular file in the place of what is at `toPath`, at once, and then gives it the
// source's attributes. Fails without an error where a path is nil or white space.
Result<void, NSError> copyAndOverwriteItemAtPath(FileManager& receiver,
                                                 std::optional<std::string_view> path,
                                                 std::optional<std::string_view> toPath);

// The most paths that the two functions below answer with; for more they fail, since whoever fills
// a folder could take any amount of memory otherwise.
inline constexpr std::size_t kMaximumPaths = 1 << 18;

// A path that begins with "~/" below each entry of the folder of the homes, in its order, whether
// that is a home or not; any other path alone. Nothing of it is looked for. Empty for a path that
// is nil or white space.
Result<std::vector<std::string>, NSError> expandPathForAllUsers(
    FileManager& receiver, std::optional<std::string_view> path);

// What exists of the expanded path, whose last component may hold a wildcard: its first "*" stands
// for any text, further ones for themselves. Letter case does not matter with a wildcard, and does
// without. What stands before and behind the "*" may overlap in a name, deliberately: "ab*ba"
// matches "aba". A bare "*" matches every entry, hidden ones too. A match is the folder, a slash
// and the name, with one slash below the root: "/*" gives "/a", not "//a".
//
// In the order of the folders. A folder that does not exist has no matches; one that can't be read
// is an error, and there is no answer then.
Result<std::vector<std::string>, NSError> matchesForWildCardedPath(
    FileManager& receiver, std::optional<std::string_view> path);

// What the matcher says where the platform raises an exception at taking the text before or behind
// the "*". No text raises it here.
NSError substringError(platform::NSRange prefixRange, platform::NSRange suffixRange,
                       const std::optional<std::string>& prefix,
                       const std::optional<std::string>& suffix,
                       const platform::NSException& exception);

}  // namespace NSFileManagerExtensions
