#pragma once

#include <string>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Reads files. Paths are absolute. Calls block only on the disk; any thread may call them.
class FileReader {
 public:
  virtual ~FileReader() = default;

  // Whether a file of any kind exists at `path` and can be reached; follows symbolic links. True if
  // the system can't tell, so that nobody takes a file for removed because the disk has a fault.
  virtual bool fileExistsAtPath(const std::string& path) = 0;

  // The property list at `path`. Errors name the file and the place in it; their code is kNotFound
  // or kDenied if the system's error means that. Reads only a regular file, and at most the size
  // limit of property lists.
  virtual Result<Value> propertyListAtPath(const std::string& path) = 0;
};

}  // namespace platform
