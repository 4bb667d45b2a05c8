#pragma once

#include <string>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Files, for those who only read them. Paths are absolute. Calls block on the disk alone; any
// thread.
class FileReader {
 public:
  virtual ~FileReader() = default;

  // Whether there is something at `path`, of whatever kind, and it can be reached; what a symbolic
  // link leads to counts.
  virtual bool fileExistsAtPath(const std::string& path) = 0;

  // What the property list at `path` holds. Errors name the file and the place in it, and are
  // kNotFound or kDenied where that is what the system means. Nothing but a regular file is read,
  // and no more of it than a property list may have.
  virtual Result<Value> propertyListAtPath(const std::string& path) = 0;
};

}  // namespace platform
