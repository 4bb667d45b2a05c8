#pragma once

#include <string>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// The property list at `path`. Errors name `path` and, if the content is malformed, the place.
// Reads only a regular file, not through a symbolic link, without blocking on its opening, and at
// most the size limit of property lists. A failure of the system has its errno, and the code
// kNotFound or kDenied if that is its meaning.
Result<Value> readPropertyListFile(const std::string& path);

// Atomically writes a list with `value` to `path`: a reader, even after a crash, finds the old or
// the new list, never a part. The new file has the permission bits of the replaced one, 0644 if
// there is none, and belongs to the caller. A symbolic link is replaced, not followed. Blocks until
// the file is on the disk. On failure `path` is unchanged.
Result<void> writePropertyListFile(const std::string& path, const Value& value,
                                   PropertyListFormat format);

}  // namespace platform
