#include "Platform/Testing/Machine/TemporaryFolder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <stdlib.h>

namespace platform {

TemporaryFolder::TemporaryFolder() {
  std::string name =
      std::filesystem::canonical(std::filesystem::temp_directory_path()) / "vantor-test.XXXXXX";
  if (!::mkdtemp(name.data())) std::abort();
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code error;
  std::filesystem::remove_all(path_, error);
}

std::string TemporaryFolder::write(std::string_view below, std::string_view content) const {
  const std::string file = path(below);
  std::filesystem::create_directories(std::filesystem::path(file).parent_path());
  std::filesystem::remove(file);
  std::ofstream(file, std::ios::binary) << content;
  return file;
}

std::string contentOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace platform
