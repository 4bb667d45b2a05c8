// The cost of matching a folder's names, against reading them.

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>

#include "Benchmarks/Goal.h"
#include "Platform/Linux/Files/LinuxFileManager.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Shared/Categories/NSFileManagerExtensions.h"

namespace {

using namespace platform;

const bool kGoals = benchmarks::atMost(
    {"wildcard", 1.3, "a tenth of 100,000 names matched with *.kext, against a bare readdir"});

constexpr int kEntries = 100'000;
constexpr int kMatches = kEntries / 10;

const std::string& largeFolder() {
  static const TemporaryFolder folder;
  static const bool made = [] {
    for (int i = 0; i < kEntries; ++i) {
      const std::string name =
          "com.vantor.entry-" + std::to_string(i) + (i % 10 ? ".txt" : ".KEXT");
      const UniqueFd file(::open(folder.path(name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
      if (!file) std::abort();
    }
    return true;
  }();
  if (!made) std::abort();
  return folder.path();
}

void wildcardSubject(benchmark::State& state) {
  LinuxFileManager manager("/home");
  const std::string pattern = largeFolder() + "/*.kext";
  for (auto _ : state) {
    const auto matches = NSFileManagerExtensions::matchesForWildCardedPath(manager, pattern);
    if (!matches || matches->size() != kMatches) state.SkipWithError("wrong matches");
  }
}
BENCHMARK(wildcardSubject)->Name("wildcard/subject");

void wildcardBaseline(benchmark::State& state) {
  const std::string path = largeFolder();
  for (auto _ : state) {
    DIR* const folder = ::opendir(path.c_str());
    int entries = 0;
    while (const dirent* entry = ::readdir(folder)) {
      benchmark::DoNotOptimize(entry);
      ++entries;
    }
    ::closedir(folder);
    if (entries != kEntries + 2) state.SkipWithError("wrong entries");
  }
}
BENCHMARK(wildcardBaseline)->Name("wildcard/baseline");

}  // namespace
