#include "Platform/Texts/IntegerValue.h"

#include <unicode/uchar.h>

#include "Platform/Texts/Utf8.h"

namespace platform {

std::int64_t integerValue(std::string_view text) {
  std::size_t at = 0;
  std::int32_t character = U_SENTINEL;
  const auto next = [&] { character = at < text.size() ? nextCharacter(text, at) : U_SENTINEL; };
  do {
    next();
  } while (character >= 0 && u_isUWhiteSpace(character));

  const bool negative = character == '-';
  if (negative || character == '+') next();

  constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
  constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
  std::int64_t value = 0;  // It is negative throughout, because that range is larger by one.
  for (; character >= 0 && u_isdigit(character); next()) {
    const std::int64_t digit = u_charDigitValue(character);
    if (__builtin_mul_overflow(value, 10, &value) || __builtin_sub_overflow(value, digit, &value)) {
      return negative ? kLeast : kMost;
    }
  }
  if (negative) return value;
  return value == kLeast ? kMost : -value;
}

}  // namespace platform
