// Replaces libFuzzer's main in an ordinary build: runs a fuzz target on every file of a folder. A
// target that finds a fault ends the process itself.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::error_code error;
  int replayed = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1], error)) {
    // Printed before the run, so that the last name is the faulty one.
    std::fprintf(stderr, "%s\n", entry.path().filename().c_str());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> content(std::istreambuf_iterator<char>(file), {});
    if (!file) return 2;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(content.data()), content.size());
    ++replayed;
  }
  std::fprintf(stderr, "%d inputs\n", replayed);
  return replayed > 0 ? 0 : 2;
}
