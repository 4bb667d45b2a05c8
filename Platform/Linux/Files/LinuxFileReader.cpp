#include "Platform/Linux/Files/LinuxFileReader.h"

#include <unistd.h>

#include "Platform/Linux/Files/PropertyListFile.h"

namespace platform {

bool LinuxFileReader::fileExistsAtPath(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

Result<Value> LinuxFileReader::propertyListAtPath(const std::string& path) {
  return readPropertyListFile(path);
}

}  // namespace platform
