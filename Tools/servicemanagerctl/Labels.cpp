#include "Tools/servicemanagerctl/Labels.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fnmatch.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ExitStatus.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

constexpr std::size_t kMostNearestLabels = 3;
// A label that differs in more bytes, or in more than a third of them, is another one.
constexpr std::size_t kMostEdits = 3;
// A longer word is compared by its beginning, so that the comparison stays cheap.
constexpr std::size_t kMostComparedBytes = 100;

// The number of inserted, removed and changed bytes between two words.
std::size_t editDistance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t changed = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

std::string_view lastPart(std::string_view label) { return label.substr(label.rfind('.') + 1); }

// Also a word that is the end of a label without its first parts is similar to it.
std::size_t labelDistance(std::string_view word, std::string_view label) {
  word = word.substr(0, kMostComparedBytes);
  label = label.substr(0, kMostComparedBytes);
  const std::size_t whole = editDistance(word, label);
  return word.contains('.') ? whole : std::min(whole, editDistance(word, lastPart(label)));
}

bool isPattern(const std::string& word) { return word.find_first_of("*?[") != word.npos; }

}  // namespace

std::vector<std::string> labelsIn(const Value& overview) {
  std::vector<std::string> labels;
  for (const char* key : {kFactServices, kFactOtherServices}) {
    const Dictionary* services = overview[key].dictionary();
    if (!services) continue;
    for (const auto& [label, facts] : *services) labels.push_back(label);
  }
  std::ranges::sort(labels);
  return labels;
}

std::vector<std::string> nearestLabels(std::string_view label,
                                       const std::vector<std::string>& known) {
  const std::size_t most = std::clamp<std::size_t>(label.size() / 3, 1, kMostEdits);
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const std::string& candidate : known) {
    const std::size_t distance = labelDistance(label, candidate);
    if (distance <= most) near.emplace_back(distance, candidate);
  }
  std::ranges::sort(near);
  std::vector<std::string> nearest;
  for (auto& [distance, candidate] : near) {
    if (nearest.size() == kMostNearestLabels) break;
    nearest.push_back(std::move(candidate));
  }
  return nearest;
}

Refusal unknownLabel(const std::string& label, const std::vector<std::string>& known) {
  std::vector<std::string> nearest;
  for (const std::string& candidate : nearestLabels(label, known))
    nearest.push_back(abridged(candidate));
  const std::string meant =
      nearest.empty() ? "" : fmt::format("did you mean {}? ", fmt::join(nearest, " or "));
  return {kExitUnknownLabel,
          fmt::format("no service has the label \"{}\"; {}\"servicemanagerctl list\" tells which "
                      "there are",
                      abridged(label), meant)};
}

Answer<std::vector<std::string>> selectLabels(const std::vector<std::string>& patterns,
                                              const std::vector<std::string>& known) {
  if (patterns.empty()) return known;
  for (const std::string& pattern : patterns) {
    if (!isPattern(pattern) && std::ranges::find(known, pattern) == known.end())
      return std::unexpected(unknownLabel(pattern, known));
  }
  std::vector<std::string> selected;
  for (const std::string& label : known) {
    const bool isNamed = std::ranges::any_of(patterns, [&](const std::string& pattern) {
      return pattern == label || ::fnmatch(pattern.c_str(), label.c_str(), 0) == 0;
    });
    if (isNamed) selected.push_back(label);
  }
  return selected;
}
