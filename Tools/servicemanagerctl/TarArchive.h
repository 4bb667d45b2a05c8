#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Time.h"

// One file of an archive. Its name has at most kMaxTarName bytes.
struct TarEntry {
  std::string name;
  std::string content;
};

inline constexpr std::size_t kMaxTarName = 99;

// A tar archive with these files in the format "ustar": regular files of root with mode 0600.
std::string tarOf(const std::vector<TarEntry>& entries, platform::WallTime time);

// The text in gzip's format. Empty if there is not enough memory.
std::string gzipped(std::string_view text);
