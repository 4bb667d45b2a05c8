#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Questions about texts. Every text is UTF-8; `std::nullopt` is nil, for which every predicate but
// isNilOrEmpty() and isNilOrWhiteSpace() is false. An ill-formed byte has no property and equals
// only itself. Any thread; time is linear in the texts.
//
// Programs here use isNilOrWhiteSpace(), boolValueFor() and isCaseInsensitiveEqualToString(). The
// rest is kept for the other programs of the product, which link this library.
namespace NSStringExtensions {

// Methods of the class.

// Whether `text` is nil or has no character.
bool isNilOrEmpty(std::optional<std::string_view> text);

// Whether `text` is nil, or empty after trimming white space and line ends, of which Unicode has
// many.
bool isNilOrWhiteSpace(std::optional<std::string_view> text);

// True for "true", "YES", "on" and "1" in any letter case; false for everything else, boolean word
// or not.
bool boolValueFor(std::optional<std::string_view> text);

// A new random UUID as 36 characters of upper case. The platform's older releases had another
// function for it; here one serves all.
std::string uuidString();

// Methods of a text.

// The number that the digits 0 to 9 form at the beginning, after white space; 0 without digits
// (also with a sign), and at most the largest number.
std::uint64_t unsignedLongLongValue(std::optional<std::string_view> receiver);

// Whether the text has a character other than white space and each one is a decimal digit of some
// script.
bool isDecimalDigits(std::optional<std::string_view> receiver);

// Whether the text has a character and each one is among 0-9, A-F and a-f.
bool isHexadecimalCharacters(std::optional<std::string_view> receiver);

// Whether each character is a letter, a mark or a number of some script; true for the empty text.
bool isAlphaNumeric(std::optional<std::string_view> receiver);

// Whether the text is one of the words "true", "YES", "on", "1", "false", "NO", "off" and "0" in
// any letter case.
bool isBoolean(std::optional<std::string_view> receiver);

// Whether both texts are equal in any letter case; false if either is nil.
bool isCaseInsensitiveEqualToString(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string);

// Whether the text is 32 hexadecimal characters.
bool isMD5String(std::optional<std::string_view> receiver);

// Whether the text begins or ends with `string` in any letter case. False for an empty `string`, on
// which matching with wildcards relies. A match ends at the border of a visible character.
bool hasPrefixCaseInsensitiveSearch(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string);
bool hasSuffixCaseInsensitiveSearch(std::optional<std::string_view> receiver,
                                    std::optional<std::string_view> string);

// The SHA-256 of the text up to its first zero byte, as 64 lower-case hexadecimal digits; nil if
// the text is not ASCII.
std::optional<std::string> sha256Hash(std::optional<std::string_view> receiver);

}  // namespace NSStringExtensions
