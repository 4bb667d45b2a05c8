#include "Platform/Linux/Files/LinuxFileReader.h"

#include <cerrno>

#include <unistd.h>

#include "Platform/Linux/Files/PropertyListFile.h"

namespace platform {

bool LinuxFileReader::fileExistsAtPath(const std::string& path) {
  if (::access(path.c_str(), F_OK) == 0) return true;
  switch (errno) {
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case ELOOP:
    case ENAMETOOLONG:
      return false;
    default:  // A fault of the disk, or no memory.
      return true;
  }
}

Result<Value> LinuxFileReader::propertyListAtPath(const std::string& path) {
  return readPropertyListFile(path);
}

}  // namespace platform
