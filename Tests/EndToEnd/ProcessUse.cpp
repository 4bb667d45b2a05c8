#include "Tests/EndToEnd/ProcessUse.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

namespace platform {
namespace {

std::string folderOf(ProcessId process) { return "/proc/" + std::to_string(process); }

}  // namespace

long privateMemoryOf(ProcessId process) {
  std::ifstream file(folderOf(process) + "/status");
  for (std::string name; file >> name;) {
    long size = 0;
    if (name == "RssAnon:" && file >> size) return size;
  }
  ADD_FAILURE() << "process " << process << " has ended";
  return 0;
}

std::size_t descriptorsOf(ProcessId process) {
  std::error_code error;
  const std::filesystem::directory_iterator entries(folderOf(process) + "/fd", error);
  EXPECT_FALSE(error) << "process " << process << ": " << error.message();
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace platform
