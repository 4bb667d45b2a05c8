#pragma once

#include <string>
#include <string_view>

namespace platform {

// An empty folder for one test, removed with all that it then holds.
class TemporaryFolder {
 public:
  TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder();

  // Absolute, without symbolic links and without a slash at its end.
  const std::string& path() const { return path_; }
  // The path of something below it.
  std::string path(std::string_view below) const { return path_ + "/" + std::string(below); }

  // Makes a file below it, replacing what was there, and the folders that lead to it. Returns its
  // path.
  std::string write(std::string_view below, std::string_view content) const;

 private:
  std::string path_;
};

// All that the file holds; nothing where it can't be read.
std::string contentOfFile(const std::string& path);

}  // namespace platform
