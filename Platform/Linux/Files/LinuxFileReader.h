#pragma once

#include "Platform/Files/FileReader.h"

namespace platform {

// Reads the files of this system; nothing is cached.
class LinuxFileReader final : public FileReader {
 public:
  bool fileExistsAtPath(const std::string& path) override;
  Result<Value> propertyListAtPath(const std::string& path) override;
};

}  // namespace platform
