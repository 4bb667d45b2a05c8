#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

inline constexpr char NSCocoaErrorDomain[] = "NSCocoaErrorDomain";

// Codes of that domain.
enum CocoaFileError : std::int64_t {
  NSFileNoSuchFileError = 4,  // the file to be written, or its folder, is missing
  NSFileReadUnknownError = 256,
  NSFileReadNoPermissionError = 257,
  NSFileReadNoSuchFileError = 260,
  NSFileWriteUnknownError = 512,
  NSFileWriteNoPermissionError = 513,
  NSFileWriteOutOfSpaceError = 640,
  NSFileWriteVolumeReadOnlyError = 642,
};

// Keys of a file's attributes; each is an integer.
inline constexpr char NSFileOwnerAccountID[] = "NSFileOwnerAccountID";
inline constexpr char NSFileGroupOwnerAccountID[] = "NSFileGroupOwnerAccountID";
inline constexpr char NSFilePosixPermissions[] = "NSFilePosixPermissions";  // at most octal 7777

// The platform's file manager. It is kept for NSFileManagerExtensions, which no program here uses
// (see there). Every error is of NSCocoaErrorDomain, and its description begins
// with the path at fault. Paths are bytes, absolute or relative to the program's folder. A path
// with a zero byte is refused. Any thread may call it; a call blocks on the disk.
class FileManager {
 public:
  virtual ~FileManager() = default;

  // The manager that the whole program shares.
  virtual FileManager& defaultManager() = 0;

  // The folder with the users' homes: absolute, without a slash at its end.
  virtual const std::string& usersRoot() const = 0;

  // Makes a folder and the missing folders above it. Each new folder gets the owner, the group and
  // the permissions in `attributes` (null: the defaults for new folders of this program); other
  // keys are ignored. A folder that exists already is a success and stays unchanged. A failing call
  // removes the folders that it has made.
  virtual Result<void, NSError> createDirectory(std::string_view path,
                                                const Dictionary* attributes) = 0;

  // Replaces the file at `destination`, which must not be a folder, by a copy of a regular file
  // (`source` may be a symbolic link). At any moment either the old or the whole new content is
  // there. The copy has the source's owner, group, permissions, and times of access and change from
  // the beginning; if it can't get them, that is an error, and the copy stays with what it has.
  virtual Result<void, NSError> overwriteWithCopy(std::string_view source,
                                                  std::string_view destination) = 0;

  // Calls `each` with the name of every entry except "." and "..", hidden ones included, in the
  // order of the system, until it returns false. The view is valid during that call.
  using EachName = std::function<bool(std::string_view name)>;
  virtual Result<void, NSError> eachNameInDirectory(std::string_view path,
                                                    const EachName& each) = 0;
};

}  // namespace platform
