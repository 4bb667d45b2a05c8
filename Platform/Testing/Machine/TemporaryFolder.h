#pragma once

#include <string>
#include <string_view>

namespace platform {

// An empty folder for one test. The destructor removes it with its content.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  // Absolute, without symbolic links and without a slash at its end.
  const std::string& path() const { return path_; }
  // The path of `below` in the folder.
  std::string path(std::string_view below) const { return path_ + "/" + std::string(below); }

  // Writes a file in the folder, replacing an old one, and makes the folders above it. Returns its
  // path.
  std::string write(std::string_view below, std::string_view content) const;

 private:
  std::string path_;
};

// The whole content of the file; empty if it can't be read.
std::string contentOfFile(const std::string& path);

}  // namespace platform
