// The cost of hashing a large file for the executable-information service.

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "Benchmarks/Goal.h"
#include "Platform/Testing/Digests/FileSha256.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"

namespace benchmarks {
namespace {

constexpr std::size_t kFileBytes = std::size_t{256} << 20;

const bool kHash =
    atMost({"file-hash", 1 / 0.9, "SHA-256 of a file of 256 MiB, warm / sha256sum of the same"});

const std::string& largeFile() {
  static const platform::TemporaryFolder folder;
  static const std::string path = [] {
    std::string made = folder.path("large");
    std::ofstream file(made, std::ios::binary);
    const std::vector<char> piece(std::size_t{1} << 20, 'x');
    for (std::size_t done = 0; done < kFileBytes; done += piece.size()) {
      file.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }
    return made;
  }();
  return path;
}

void hashHere(benchmark::State& state) {
  const std::string& path = largeFile();
  for (auto _ : state) {
    const auto digest = platform::sha256OfFile(path);
    if (!digest || !*digest) state.SkipWithError("no digest");
  }
}
BENCHMARK(hashHere)->Name("file-hash/subject")->Unit(benchmark::kMillisecond)->UseRealTime();

void hashByTool(benchmark::State& state) {
  const std::string command = "sha256sum '" + largeFile() + "' >/dev/null";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("sha256sum failed");
  }
}
BENCHMARK(hashByTool)->Name("file-hash/baseline")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace benchmarks
