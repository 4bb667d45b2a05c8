#pragma once

#include <map>
#include <optional>
#include <string>

#include "Platform/Files/FileReader.h"

namespace platform {

// A disk with the files of a test. Only one thread may use it.
class FakeFileReader final : public FileReader {
 public:
  // Writes a file and replaces an old one.
  void addFile(const std::string& path, std::string content = {});
  void addFolder(const std::string& path);
  // Writes a property list with `value`, which must be valid in one.
  void addPropertyList(const std::string& path, const Value& value);
  void remove(const std::string& path) { contents_.erase(path); }

  bool fileExistsAtPath(const std::string& path) override { return contents_.contains(path); }
  Result<Value> propertyListAtPath(const std::string& path) override;

 private:
  std::map<std::string, std::optional<std::string>> contents_;  // std::nullopt is a folder
};

}  // namespace platform
