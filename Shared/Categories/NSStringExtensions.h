#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// What texts are asked everywhere. Every text is UTF-8; `std::nullopt` is nil, of which every
// predicate but isNilOrEmpty() and isNilOrWhiteSpace() is false. A byte that is ill-formed has no
// property and equals itself alone. Any thread; time is linear in the texts.
namespace NSStringExtensions {

// Of the class.

// Whether `text` is nil or has no character.
bool isNilOrEmpty(std::optional<std::string_view> text);

// Whether `text` is nil or nothing is left of it after trimming white space and line ends, of which
// Unicode has many.
bool isNilOrWhiteSpace(std::optional<std::string_view> text);

// True for "true", "YES", "on" and "1" in any letter case; false for everything else, be it a
// boolean word or none.
bool boolValueFor(std::optional<std::string_view> text);

// A new random UUID as 36 characters of upper case. The platform once had another maker of them for
// its older releases; here one serves all.
std::string uuidString();

// Of a text.

// The number that the digits 0 to 9 at the beginning make, white space before them aside; 0 without
// one (also with a sign), the largest number where they make a larger one.
std::uint64_t unsignedLongLongValue(std::optional<std::string_view> receiver);

// Whether the text has a character other than white space and each one is a decimal digit of some
// script.
bool isDecimalDigits(std::optional<std::string_view> receiver);

// Whether the text has a character and each one is among 0-9, A-F and a-f.
bool isHexadecimalCharacters(std::optional<std::string_view> receiver);

// Whether each character is a letter, a mark or a number of some script; true of the empty text.
bool isAlphaNumeric(std::optional<std::string_view> receiver);

// Whether the text is one of the words "true", "YES", "on", "1", "false", "NO", "off" and "0" in
// any letter case.
bool isBoolean(std::optional<std::string_view> receiver);

// Whether both are the same text but for letter case; false where either is nil.
bool isCaseInsensitiveEqualToString(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string);

// Whether the text is 32 hexadecimal characters.
bool isMD5String(std::optional<std::string_view> receiver);

// Whether the text begins or ends with `string` but for letter case. False of an empty `string`:
// the search finds nothing, which matching with wildcards relies on. What is found does not end
// within a character as a reader sees it.
bool hasPrefixCaseInsensitiveSearch(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string);
bool hasSuffixCaseInsensitiveSearch(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string);

// The SHA-256 of the text up to its first zero byte, as 64 lower-case hexadecimal digits; nil where
// the text is not ASCII.
std::optional<std::string> sha256Hash(std::optional<std::string_view> receiver);

}  // namespace NSStringExtensions
