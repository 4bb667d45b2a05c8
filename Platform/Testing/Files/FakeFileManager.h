#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Files/FileManager.h"

namespace platform {

// Files and folders in memory. Paths are absolute, without empty components, "." and "..". The
// folder "/" always exists. There are no users: everything is permitted unless it is made to fail.
// Entries are listed in the order of their creation.
class FakeFileManager final : public FileManager {
 public:
  struct Node {
    bool isFolder = false;
    std::string content;
    Dictionary attributes;
    std::vector<std::string> names;  // of a folder's entries
  };

  explicit FakeFileManager(std::string usersRoot = "/Users") : usersRoot_(std::move(usersRoot)) {}

  // Makes a file and the folders above it.
  void addFile(std::string_view path, std::string content = {}, Dictionary attributes = {});
  void addFolder(std::string_view path);
  // Null if there is nothing at `path`.
  const Node* find(std::string_view path) const;

  // From now on every operation on this path fails with this code.
  void failAt(std::string path, std::int64_t code);

  // The result of defaultManager() instead of this object.
  void setDefaultManager(FileManager& manager) { default_ = &manager; }

  FileManager& defaultManager() override { return default_ ? *default_ : *this; }
  const std::string& usersRoot() const override { return usersRoot_; }
  Result<void, NSError> createDirectory(std::string_view path,
                                        const Dictionary* attributes) override;
  Result<void, NSError> overwriteWithCopy(std::string_view source,
                                          std::string_view destination) override;
  Result<void, NSError> eachNameInDirectory(std::string_view path, const EachName& each) override;

 private:
  NSError failure(std::int64_t code, std::string_view path) const;
  std::optional<NSError> madeToFail(std::string_view path) const;
  Result<void, NSError> makeFolders(std::string_view path, const Dictionary* attributes);
  void add(std::string_view path, Node node);

  std::string usersRoot_;
  FileManager* default_ = nullptr;
  std::map<std::string, Node, std::less<>> nodes_{{"/", Node{true, {}, {}, {}}}};
  std::map<std::string, std::int64_t, std::less<>> failures_;
};

}  // namespace platform
