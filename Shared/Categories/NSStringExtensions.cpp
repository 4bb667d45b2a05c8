#include "Shared/Categories/NSStringExtensions.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <system_error>

#include <unicode/uchar.h>

#include "Platform/Digests/Digest.h"
#include "Platform/SystemFacts/Uuid.h"
#include "Shared/Categories/CaseInsensitiveSearch.h"
#include "Shared/Categories/CodePoints.h"

namespace NSStringExtensions {
namespace {

constexpr std::array<std::string_view, 4> kTrueWords{"true", "YES", "on", "1"};
constexpr std::array<std::string_view, 4> kFalseWords{"false", "NO", "off", "0"};

// The maximum size in bytes of five characters, the longest boolean word. No character folds to
// fewer.
constexpr std::size_t kMostBytesOfWord = 20;

constexpr std::size_t kMD5Digits = 32;

bool isAmong(const std::array<std::string_view, 4>& words, std::string_view text) {
  return text.size() <= kMostBytesOfWord &&
         std::ranges::any_of(words, [text](std::string_view word) {
           return CaseInsensitiveSearch::areEqual(word, text);
         });
}

bool isHexadecimal(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

bool isLetterMarkOrNumber(UChar32 character) {
  return (U_GET_GC_MASK(character) & (U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK)) != 0;
}

std::string_view withoutLeadingWhiteSpace(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t start = at;
    if (!u_isUWhiteSpace(CodePoints::next(text, at))) return text.substr(start);
  }
  return {};
}

}  // namespace

bool isNilOrEmpty(std::optional<std::string_view> text) { return !text || text->empty(); }

bool isNilOrWhiteSpace(std::optional<std::string_view> text) {
  return isNilOrEmpty(text) || CodePoints::all(*text, u_isUWhiteSpace);
}

bool boolValueFor(std::optional<std::string_view> text) {
  return isBoolean(text) && isAmong(kTrueWords, *text);
}

std::string uuidString() { return platform::newUuidString(); }

std::uint64_t unsignedLongLongValue(std::optional<std::string_view> receiver) {
  if (!receiver) return 0;
  const std::string_view digits = withoutLeadingWhiteSpace(*receiver);
  std::uint64_t number = 0;
  // from_chars() takes no sign for an unsigned number.
  const auto [end, error] = std::from_chars(digits.begin(), digits.end(), number);
  if (error == std::errc::result_out_of_range) return std::numeric_limits<std::uint64_t>::max();
  return number;
}

bool isDecimalDigits(std::optional<std::string_view> receiver) {
  return !isNilOrWhiteSpace(receiver) && CodePoints::all(*receiver, u_isdigit);
}

bool isHexadecimalCharacters(std::optional<std::string_view> receiver) {
  return !isNilOrWhiteSpace(receiver) && std::ranges::all_of(*receiver, isHexadecimal);
}

bool isAlphaNumeric(std::optional<std::string_view> receiver) {
  return receiver && CodePoints::all(*receiver, isLetterMarkOrNumber);
}

bool isBoolean(std::optional<std::string_view> receiver) {
  return !isNilOrWhiteSpace(receiver) &&
         (isAmong(kTrueWords, *receiver) || isAmong(kFalseWords, *receiver));
}

bool isCaseInsensitiveEqualToString(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string) {
  return receiver && string && CaseInsensitiveSearch::areEqual(*receiver, *string);
}

bool isMD5String(std::optional<std::string_view> receiver) {
  return isHexadecimalCharacters(receiver) && receiver->size() == kMD5Digits;
}

bool hasPrefixCaseInsensitiveSearch(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string) {
  return receiver && string && CaseInsensitiveSearch::isPrefix(*string, *receiver);
}

bool hasSuffixCaseInsensitiveSearch(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string) {
  return receiver && string && CaseInsensitiveSearch::isSuffix(*string, *receiver);
}

std::optional<std::string> sha256Hash(std::optional<std::string_view> receiver) {
  const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
  if (!receiver || !std::ranges::all_of(*receiver, isAscii)) return std::nullopt;
  const std::string_view text = receiver->substr(0, receiver->find('\0'));
  return platform::hexadecimalText(
      platform::CC_SHA256({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}));
}

}  // namespace NSStringExtensions
