#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// The texts of scalars in XML property lists. The readers expect the text without surrounding white
// space.

enum class ScalarProblem {
  kMalformed,
  kOutOfRange,
};

// Digits with an optional sign, decimal or, after "0x", hexadecimal; signed 64-bit.
Result<std::int64_t, ScalarProblem> integerFromText(std::string_view text);

// A decimal number with an optional sign and exponent, or nan, inf, infinity in any letter case. A
// number that would become infinite, or zero although it is not, is out of range.
Result<double, ScalarProblem> realFromText(std::string_view text);

// Exactly "2026-01-02T03:04:05Z", in the years 1 to 9999.
Result<Date, ScalarProblem> dateFromText(std::string_view text);

// White space may be anywhere; alphabet, padding and unused bits must follow RFC 4648.
Result<Data, ScalarProblem> dataFromText(std::string_view text);

// The shortest text that reads back; "nan", "+infinity" and "-infinity".
std::string textFromReal(double real);

// Whether a property list can represent the date: finite, in the years 1 to 9999.
bool isWithinPropertyListDates(double secondsSinceReferenceDate);

// The date, rounded down to the second. It must be in the years 1 to 9999.
std::string textFromDate(Date date);

// Base64 with padding, without line breaks.
std::string textFromData(std::span<const std::uint8_t> data);

// The text without XML's white space at both ends.
std::string_view withoutSurroundingWhiteSpace(std::string_view text);

inline constexpr std::string_view kXmlWhiteSpace = " \t\r\n";

}  // namespace platform
