#include "Shared/Categories/NSStringExtensions.h"

#include <cstdint>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace NSStringExtensions {
namespace {

// Whether `holds` is true of every code point; an ill-formed sequence is U_SENTINEL, which has no
// property.
template <typename Predicate>
bool allCodePoints(std::string_view text, Predicate holds) {
  const auto size = static_cast<std::int64_t>(text.size());
  for (std::int64_t at = 0; at < size;) {
    UChar32 codePoint = U_SENTINEL;
    U8_NEXT(text.data(), at, size, codePoint);
    if (!holds(codePoint)) return false;
  }
  return true;
}

}  // namespace

bool isNilOrEmpty(std::optional<std::string_view> text) { return !text || text->empty(); }

bool isNilOrWhiteSpace(std::optional<std::string_view> text) {
  return isNilOrEmpty(text) || allCodePoints(*text, u_isUWhiteSpace);
}

bool isDecimalDigits(std::optional<std::string_view> text) {
  return !isNilOrWhiteSpace(text) && allCodePoints(*text, u_isdigit);
}

}  // namespace NSStringExtensions
