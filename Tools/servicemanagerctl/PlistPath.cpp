#include "Tools/servicemanagerctl/PlistPath.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <span>
#include <utility>

#include <fmt/format.h>

#include "Platform/Texts/QuotedText.h"

using namespace platform;

namespace {

using Parts = std::span<const std::string>;

std::string replaceAll(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size())
    text.replace(at, from.size(), to);
  return text;
}

std::optional<std::size_t> indexIn(const std::string& part) {
  std::size_t number = 0;
  const auto [stop, error] = std::from_chars(part.data(), part.data() + part.size(), number);
  if (part.empty() || error != std::errc() || stop != part.data() + part.size())
    return std::nullopt;
  return number;
}

std::unexpected<std::string> notThere(const std::string& part) {
  return std::unexpected(fmt::format("there is no {} on the way", quotedInMessage(part)));
}

std::expected<Value, std::string> withValue(const Value& root, Parts path, const Value& value) {
  if (path.empty()) return value;
  const std::string& part = path.front();
  const bool isLast = path.size() == 1;
  if (const Dictionary* entries = root.dictionary()) {
    if (!isLast && !entries->contains(part)) return notThere(part);
    auto changed = withValue((*entries)[part], path.subspan(1), value);
    if (!changed) return changed;
    Dictionary copy = *entries;
    copy.set(part, *std::move(changed));
    return Value(std::move(copy));
  }
  const Array* elements = root.array();
  const auto index = indexIn(part);
  const bool isNew = elements && index == elements->size() && isLast;
  if (!elements || !index || (*index >= elements->size() && !isNew)) return notThere(part);
  auto changed = withValue(isNew ? Value() : (*elements)[*index], path.subspan(1), value);
  if (!changed) return changed;
  Array copy = *elements;
  if (isNew) copy.emplace_back();
  copy[*index] = *std::move(changed);
  return Value(std::move(copy));
}

bool isSameScalar(const Value& one, const Value& other) {
  if (one.type() != other.type()) return false;
  if (one.real() && std::isnan(*one.real())) return std::isnan(*other.real());
  return one == other;
}

void addDifferences(const std::string& path, const Value& one, const Value& other,
                    std::vector<PlistDifference>& differences) {
  const Dictionary* entries = one.dictionary();
  const Dictionary* otherEntries = other.dictionary();
  const Array* elements = one.array();
  const Array* otherElements = other.array();
  if (entries && otherEntries) {
    for (const auto& [key, value] : *entries)
      addDifferences(pathOfKey(path, key), value, (*otherEntries)[key], differences);
    for (const auto& [key, value] : *otherEntries) {
      if (!entries->contains(key))
        addDifferences(pathOfKey(path, key), Value(), value, differences);
    }
  } else if (elements && otherElements) {
    const auto at = [](const Array& array, std::size_t i) {
      return i < array.size() ? array[i] : Value();
    };
    for (std::size_t i = 0; i < std::max(elements->size(), otherElements->size()); ++i) {
      addDifferences(pathOfKey(path, std::to_string(i)), at(*elements, i), at(*otherElements, i),
                     differences);
    }
  } else if (!isSameScalar(one, other)) {
    differences.push_back({path, one, other});
  }
}

}  // namespace

std::vector<std::string> partsOfPath(std::string_view path) {
  std::vector<std::string> parts;
  while (!path.empty()) {
    const std::size_t slash = std::min(path.find('/'), path.size());
    std::string part = replaceAll(std::string(path.substr(0, slash)), "~1", "/");
    parts.push_back(replaceAll(std::move(part), "~0", "~"));
    path.remove_prefix(std::min(slash + 1, path.size()));
  }
  return parts;
}

std::string pathOfKey(std::string_view path, std::string_view key) {
  std::string part = replaceAll(replaceAll(std::string(key), "~", "~0"), "/", "~1");
  return path.empty() ? part : fmt::format("{}/{}", path, part);
}

std::optional<Value> valueAtPath(const Value& root, const std::vector<std::string>& path) {
  Value value = root;
  for (const std::string& part : path) {
    if (const Dictionary* entries = value.dictionary()) {
      value = Value((*entries)[part]);
    } else {
      const auto index = indexIn(part);
      const Array* elements = value.array();
      if (!index || !elements || *index >= elements->size()) return std::nullopt;
      value = Value((*elements)[*index]);
    }
    if (value.isNil()) return std::nullopt;
  }
  return value;
}

std::expected<Value, std::string> withValueAtPath(const Value& root,
                                                  const std::vector<std::string>& path,
                                                  const Value& value) {
  return withValue(root, path, value);
}

std::vector<PlistDifference> differencesOf(const Value& one, const Value& other) {
  std::vector<PlistDifference> differences;
  addDifferences("", one, other, differences);
  return differences;
}
