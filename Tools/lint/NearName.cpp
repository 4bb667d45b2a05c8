#include "Tools/lint/NearName.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <utility>

namespace lint {
namespace {

// No key is longer, and the effort grows with the square.
constexpr std::size_t kLongestName = 128;

char lower(char character) {
  return static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
}

// How many letters must be inserted, removed, replaced, or swapped with their neighbour to make one
// name of the other, without regard to case.
std::size_t distance(std::string_view one, std::string_view other) {
  using Row = std::array<std::size_t, kLongestName + 1>;
  Row beforeLast{};
  Row last{};
  Row row{};
  for (std::size_t j = 0; j <= other.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= one.size(); ++i) {
    beforeLast = std::exchange(last, row);
    row[0] = i;
    for (std::size_t j = 1; j <= other.size(); ++j) {
      const bool isSame = lower(one[i - 1]) == lower(other[j - 1]);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (isSame ? 0 : 1)});
      const bool isSwapped = i > 1 && j > 1 && lower(one[i - 1]) == lower(other[j - 2]) &&
                             lower(one[i - 2]) == lower(other[j - 1]);
      if (isSwapped) row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
  }
  return row[other.size()];
}

}  // namespace

std::optional<std::string_view> nearName(std::string_view name,
                                         std::span<const std::string_view> known) {
  if (name.size() > kLongestName) return std::nullopt;
  std::optional<std::string_view> nearest;
  // A third of the letters, so that short names are not taken for one another.
  std::size_t limit = std::max<std::size_t>(1, name.size() / 3);
  for (const std::string_view candidate : known) {
    const auto [shorter, longer] = std::minmax({name.size(), candidate.size()});
    if (longer > kLongestName || longer - shorter > limit) continue;
    const std::size_t difference = distance(name, candidate);
    if (difference > limit || (nearest && difference == limit)) continue;
    nearest = candidate;
    limit = difference;
  }
  return nearest;
}

}  // namespace lint
