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
  NSFileNoSuchFileError = 4,  // a file to be written, or its folder, is not there
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

// The platform's file manager. Every error is of NSCocoaErrorDomain and its description begins with
// the path at fault. Paths are bytes, absolute or relative to the program's folder; one that holds
// a zero byte is refused. Any thread; a call blocks as long as the disk does.
class FileManager {
 public:
  virtual ~FileManager() = default;

  // The one that the whole program shares.
  virtual FileManager& defaultManager() = 0;

  // The folder that holds the users' homes: absolute, without a slash at its end.
  virtual const std::string& usersRoot() const = 0;

  // Makes a folder and those on the way to it that are missing. Each one made gets the owner, the
  // group and the permissions that `attributes` has (null: those of a new folder of this program;
  // other keys don't count). A folder that is there already is a success and stays as it is. What a
  // failing call has made is taken back.
  virtual Result<void, NSError> createDirectory(std::string_view path,
                                                const Dictionary* attributes) = 0;

  // Puts a copy of a regular file (of which `source` may be a symbolic link) in the place of
  // whatever but a folder is at `destination`: at any moment the old content is there, or all of
  // the new. While it has no attributes yet the copy is its owner's alone. Then it gets, one after
  // the other, the source's owner, group, permissions and times of use and change; if it can't,
  // that is an error and the copy stays.
  virtual Result<void, NSError> overwriteWithCopy(std::string_view source,
                                                  std::string_view destination) = 0;

  // Calls `each` with the name of every entry but "." and "..", hidden ones included, in the order
  // of the system, for as long as it answers true. The view lives as long as that call.
  using EachName = std::function<bool(std::string_view name)>;
  virtual Result<void, NSError> eachNameInDirectory(std::string_view path,
                                                    const EachName& each) = 0;
};

}  // namespace platform
