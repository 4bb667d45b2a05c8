#pragma once

#include <map>
#include <optional>
#include <string>

#include "Platform/Files/FileReader.h"

namespace platform {

// A disk of what a test puts there. Not for several threads.
class FakeFileReader final : public FileReader {
 public:
  // Puts a file there, in place of what was.
  void addFile(const std::string& path, std::string content = {});
  void addFolder(const std::string& path);
  // The same with a property list that holds `value`, which one must be able to hold.
  void addPropertyList(const std::string& path, const Value& value);
  void remove(const std::string& path) { contents_.erase(path); }

  bool fileExistsAtPath(const std::string& path) override { return contents_.contains(path); }
  Result<Value> propertyListAtPath(const std::string& path) override;

 private:
  std::map<std::string, std::optional<std::string>> contents_;  // Nothing is a folder.
};

}  // namespace platform
