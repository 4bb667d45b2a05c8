#include "Shared/Categories/CaseInsensitiveSearch.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <optional>

#include <unicode/brkiter.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include "Shared/Categories/CodePoints.h"

namespace CaseInsensitiveSearch {
namespace {

using icu::UnicodeString;

bool isAscii(char c) { return static_cast<unsigned char>(c) < 0x80; }

char lowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

// Counts consecutive marks. Sorting them takes time that is quadratic in their number, so a joiner,
// which is invisible, limits their runs, as in Unicode's stream-safe text (UAX #15).
class MarksInARow {
 public:
  // Whether a joiner must come before this character.
  bool needsJoinerBefore(UChar32 character) {
    if (!decompose_ || decompose_->hasBoundaryBefore(character)) {
      count_ = 0;
      return false;
    }
    if (count_++ < kMost) return false;
    count_ = 1;
    return true;
  }

 private:
  static constexpr int kMost = 30;

  UErrorCode status_ = U_ZERO_ERROR;
  const icu::Normalizer2* decompose_ = icu::Normalizer2::getNFDInstance(status_);
  int count_ = 0;
};

// Each ill-formed byte becomes a lone surrogate of its own, which folds to itself.
UnicodeString utf16(std::string_view text) {
  constexpr UChar32 kIllFormed = 0xdc00;
  constexpr UChar32 kCombiningGraphemeJoiner = 0x034f;
  UnicodeString converted(static_cast<std::int32_t>(text.size()), UChar32{0}, 0);
  MarksInARow marks;
  for (std::size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const UChar32 character = CodePoints::next(text, at);
    if (character >= 0 && marks.needsJoinerBefore(character)) {
      converted.append(kCombiningGraphemeJoiner);
    }
    converted.append(character >= 0 ? character : kIllFormed + byte);
  }
  return converted;
}

// The common form of canonically equivalent texts of any letter case. Bogus without memory.
UnicodeString folded(const UnicodeString& text) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const decompose = icu::Normalizer2::getNFDInstance(status);
  UnicodeString result;
  if (U_SUCCESS(status)) {
    result = decompose->normalize(decompose->normalize(text, status).foldCase(), status);
  }
  if (U_FAILURE(status)) result.setToBogus();
  return result;
}

// Iterates over the characters as a reader sees them. Null without memory.
icu::BreakIterator* characterBreaks(const UnicodeString& text) {
  // Construction costs far more than use.
  thread_local const std::unique_ptr<icu::BreakIterator> breaks = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> made(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    return U_SUCCESS(status) ? std::move(made) : nullptr;
  }();
  if (breaks) breaks->setText(text);
  return breaks.get();
}

enum class Anchor { kStart, kEnd };

// Compares one visible character after the other, so that a match can only end between two of them;
// canonical ordering never crosses their borders.
bool isAnchored(Anchor anchor, std::string_view part, std::string_view text) {
  const UnicodeString wanted = folded(utf16(part));
  const UnicodeString whole = utf16(text);
  icu::BreakIterator* const breaks = characterBreaks(whole);
  if (!breaks || wanted.isBogus()) return false;
  const bool forwards = anchor == Anchor::kStart;
  std::int32_t left = wanted.length();
  std::int32_t from = forwards ? breaks->first() : breaks->last();
  while (left > 0) {
    const std::int32_t to = forwards ? breaks->next() : breaks->previous();
    if (to == icu::BreakIterator::DONE) return false;
    const UnicodeString character = folded(forwards ? whole.tempSubStringBetween(from, to)
                                                    : whole.tempSubStringBetween(to, from));
    const std::int32_t length = character.length();
    if (character.isBogus() || length > left) return false;
    const std::int32_t at = forwards ? wanted.length() - left : left - length;
    if (wanted.compare(at, length, character) != 0) return false;
    left -= length;
    from = to;
  }
  return true;
}

// The answer if ASCII alone decides: a letter of ASCII equals no other letter of ASCII.
std::optional<bool> areEqualAscii(std::string_view one, std::string_view other) {
  const std::size_t shared = std::min(one.size(), other.size());
  for (std::size_t i = 0; i < shared; ++i) {
    if (!isAscii(one[i]) || !isAscii(other[i])) return std::nullopt;
    if (lowerCase(one[i]) != lowerCase(other[i])) return false;
  }
  if (one.size() == other.size()) return true;
  const char following = one.size() > shared ? one[shared] : other[shared];
  return isAscii(following) ? std::optional(false) : std::nullopt;
}

std::optional<bool> isAsciiPrefix(std::string_view part, std::string_view text) {
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (!isAscii(part[i])) return std::nullopt;
    if (i == text.size()) return false;
    if (!isAscii(text[i])) return std::nullopt;
    if (lowerCase(part[i]) != lowerCase(text[i])) return false;
  }
  if (part.size() == text.size()) return true;
  const char following = text[part.size()];
  if (!isAscii(following)) return std::nullopt;
  return !(part.back() == '\r' && following == '\n');
}

std::optional<bool> isAsciiSuffix(std::string_view part, std::string_view text) {
  for (std::size_t i = 1; i <= part.size(); ++i) {
    if (!isAscii(part[part.size() - i])) return std::nullopt;
    if (i > text.size()) return false;
    const char other = text[text.size() - i];
    if (!isAscii(other)) return std::nullopt;
    if (lowerCase(part[part.size() - i]) != lowerCase(other)) return false;
  }
  if (part.size() == text.size()) return true;
  const char preceding = text[text.size() - part.size() - 1];
  if (!isAscii(preceding)) return std::nullopt;
  return !(preceding == '\r' && part.front() == '\n');
}

// Whether a reader sees the character at the byte `at` as a part of the visible ASCII character
// before it.
bool continuesCharacter(std::string_view text, std::size_t at) {
  if (at == text.size() || isAscii(text[at])) return false;
  const UChar32 character = CodePoints::next(text, at);
  if (character < 0) return false;
  switch (u_getIntPropertyValue(character, UCHAR_GRAPHEME_CLUSTER_BREAK)) {
    case U_GCB_EXTEND:
    case U_GCB_ZWJ:
    case U_GCB_SPACING_MARK:
      return true;
    default:
      return false;
  }
}

bool standsAt(std::size_t at, std::string_view part, std::string_view text) {
  for (std::size_t i = 0; i < part.size(); ++i) {
    if (lowerCase(text[at + i]) != part[i]) return false;
  }
  return true;
}

}  // namespace

bool areEqual(std::string_view one, std::string_view other) {
  if (const std::optional<bool> answer = areEqualAscii(one, other)) return *answer;
  const UnicodeString a = folded(utf16(one));
  const UnicodeString b = folded(utf16(other));
  return !a.isBogus() && a == b;
}

bool isPrefix(std::string_view part, std::string_view text) {
  if (part.empty()) return false;
  const std::optional<bool> answer = isAsciiPrefix(part, text);
  return answer ? *answer : isAnchored(Anchor::kStart, part, text);
}

bool isSuffix(std::string_view part, std::string_view text) {
  if (part.empty()) return false;
  const std::optional<bool> answer = isAsciiSuffix(part, text);
  return answer ? *answer : isAnchored(Anchor::kEnd, part, text);
}

std::size_t find(std::string_view part, std::string_view text, std::size_t from) {
  assert(!part.empty());
  for (std::size_t at = from; at < text.size() && text.size() - at >= part.size(); ++at) {
    if (standsAt(at, part, text) && !continuesCharacter(text, at + part.size())) return at;
  }
  return std::string_view::npos;
}

}  // namespace CaseInsensitiveSearch
