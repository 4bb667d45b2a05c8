#pragma once

#include "Platform/Files/FileReader.h"

namespace platform {

// Looks at the files of this system, each time anew.
class LinuxFileReader final : public FileReader {
 public:
  bool fileExistsAtPath(const std::string& path) override;
  Result<Value> propertyListAtPath(const std::string& path) override;
};

}  // namespace platform
