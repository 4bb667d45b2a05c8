#pragma once

#include <optional>
#include <string_view>

// What texts are asked everywhere. Every text is UTF-8; `std::nullopt` is nil. Pure; any thread.
namespace NSStringExtensions {

// Whether `text` is nil or has no character.
bool isNilOrEmpty(std::optional<std::string_view> text);

// Whether `text` is nil or nothing is left of it after trimming white space and line ends, of which
// Unicode has many. An ill-formed byte is not white space.
bool isNilOrWhiteSpace(std::optional<std::string_view> text);

// Whether `text` has a character other than white space and each one is a decimal digit of some
// script.
bool isDecimalDigits(std::optional<std::string_view> text);

}  // namespace NSStringExtensions
