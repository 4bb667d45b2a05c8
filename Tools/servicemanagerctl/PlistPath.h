#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"

// Values inside a property list, named by the keys on the way to them: "Services/com.x/JobSpec". A
// number stands for an element of an array. In a key "~1" stands for a slash and "~0" for a tilde.

// The parts of a path; none for an empty path, which is that of the whole value.
std::vector<std::string> partsOfPath(std::string_view path);

// The path of `key` below `path`.
std::string pathOfKey(std::string_view path, std::string_view key);

// Nothing if there is no such value.
std::optional<platform::Value> valueAtPath(const platform::Value& root,
                                           const std::vector<std::string>& path);

// A copy of `root` with another value at the path. The last part may be a new key, or the number
// behind an array's last one. Fails with the part that is not there.
std::expected<platform::Value, std::string> withValueAtPath(const platform::Value& root,
                                                            const std::vector<std::string>& path,
                                                            const platform::Value& value);

// A difference between two values; nil where one of them has none.
struct PlistDifference {
  std::string path;
  platform::Value one;
  platform::Value other;

  bool operator==(const PlistDifference&) const = default;
};

// The smallest values that differ. Values of different types do, also 1 and true.
std::vector<PlistDifference> differencesOf(const platform::Value& one,
                                           const platform::Value& other);
