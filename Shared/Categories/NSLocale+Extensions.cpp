#include <algorithm>

#include "Shared/Categories/NSLocale+Extensions.h"

namespace NSLocale::Extensions {

std::vector<std::string> sortLanguagesInPreferredOrder(
    std::vector<std::string> languages, std::span<const std::string> preferredLanguages) {
  for (const std::string& preferred : preferredLanguages) {
    const auto found = std::ranges::find(languages, preferred);
    if (found == languages.end()) continue;
    std::rotate(languages.begin(), found, found + 1);
    break;
  }
  return languages;
}

}  // namespace NSLocale::Extensions
