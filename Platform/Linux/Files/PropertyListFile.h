#pragma once

#include <string>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// What the property list at `path` holds; errors name `path` and, for malformed content, the place.
// Only a regular file is read, not through a symbolic link, opened without blocking, and at most as
// much of it as a property list may have. The system's refusal is an error with its errno, of kind
// kNotFound or kDenied where that is what it means.
Result<Value> readPropertyListFile(const std::string& path);

// Puts a list that holds `value` at `path`, at once: whoever opens it, even after a crash, finds
// the old list or the new one, whole. The new file has the permission bits of the one that it
// replaces, 0644 if there is none, and the caller's owner. A symbolic link is replaced, not
// followed. Blocks until the disk has the file. On failure `path` is as it was.
Result<void> writePropertyListFile(const std::string& path, const Value& value,
                                   PropertyListFormat format);

}  // namespace platform
