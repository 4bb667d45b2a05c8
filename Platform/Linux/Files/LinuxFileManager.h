#pragma once

#include <string>

#include "Platform/Files/FileManager.h"

namespace platform {

// The file manager on this machine's files.
class LinuxFileManager final : public FileManager {
 public:
  // `usersRoot` is absolute, without a slash at its end.
  explicit LinuxFileManager(std::string usersRoot) : usersRoot_(std::move(usersRoot)) {}

  FileManager& defaultManager() override { return *this; }
  const std::string& usersRoot() const override { return usersRoot_; }
  Result<void, NSError> createDirectory(std::string_view path,
                                        const Dictionary* attributes) override;
  Result<void, NSError> overwriteWithCopy(std::string_view source,
                                          std::string_view destination) override;
  Result<void, NSError> eachNameInDirectory(std::string_view path, const EachName& each) override;

 private:
  std::string usersRoot_;
};

}  // namespace platform
