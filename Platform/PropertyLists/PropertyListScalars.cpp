#include "Platform/PropertyLists/PropertyListScalars.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <limits>
#include <optional>

#include <fmt/core.h>

namespace platform {
namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;

constexpr std::int64_t startOfYear(int year) {
  const std::chrono::sys_days day = std::chrono::year(year) / 1 / 1;
  return day.time_since_epoch().count() * kSecondsPerDay - kReferenceDateUnixSeconds;
}
constexpr auto kFirstSecond = static_cast<double>(startOfYear(1));
constexpr auto kAfterLastSecond = static_cast<double>(startOfYear(10'000));

bool isDigit(char character) { return character >= '0' && character <= '9'; }

char asciiLower(char character) {
  return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                              : character;
}

bool equalIgnoringCase(std::string_view text, std::string_view lower) {
  return std::ranges::equal(text, lower, {}, asciiLower);
}

// Removes the sign.
bool takeSign(std::string_view& text) {
  if (text.empty() || (text.front() != '-' && text.front() != '+')) return false;
  const bool negative = text.front() == '-';
  text.remove_prefix(1);
  return negative;
}

int sixBits(char character) {
  if (character >= 'A' && character <= 'Z') return character - 'A';
  if (character >= 'a' && character <= 'z') return character - 'a' + 26;
  if (isDigit(character)) return character - '0' + 52;
  if (character == '+') return 62;
  return character == '/' ? 63 : -1;
}

// The number at `offset`. The caller has checked that its characters are digits.
int number(std::string_view text, std::size_t offset, std::size_t length) {
  int value = 0;
  for (const char digit : text.substr(offset, length)) value = value * 10 + (digit - '0');
  return value;
}

}  // namespace

Result<std::int64_t, ScalarProblem> integerFromText(std::string_view text) {
  const bool negative = takeSign(text);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
  if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
    return std::unexpected(ScalarProblem::kMalformed);
  }
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (error != std::errc() || magnitude > kMax + (negative ? 1 : 0)) {
    return std::unexpected(ScalarProblem::kOutOfRange);
  }
  return static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
}

Result<double, ScalarProblem> realFromText(std::string_view text) {
  const bool negative = takeSign(text);
  double magnitude = 0;
  if (equalIgnoringCase(text, "nan")) {
    magnitude = std::numeric_limits<double>::quiet_NaN();
  } else if (equalIgnoringCase(text, "inf") || equalIgnoringCase(text, "infinity")) {
    magnitude = std::numeric_limits<double>::infinity();
  } else {
    // from_chars() would accept a second sign and "nan(...)".
    if (text.empty() || !(isDigit(text.front()) || text.front() == '.')) {
      return std::unexpected(ScalarProblem::kMalformed);
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    if (error == std::errc::invalid_argument || end != text.data() + text.size()) {
      return std::unexpected(ScalarProblem::kMalformed);
    }
    if (error != std::errc()) return std::unexpected(ScalarProblem::kOutOfRange);
  }
  return negative ? -magnitude : magnitude;
}

Result<Date, ScalarProblem> dateFromText(std::string_view text) {
  constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:ddZ";
  const bool formed = std::ranges::equal(text, kForm, [](char character, char expected) {
    return expected == 'd' ? isDigit(character) : character == expected;
  });
  if (!formed) return std::unexpected(ScalarProblem::kMalformed);
  const std::chrono::year_month_day date(
      std::chrono::year(number(text, 0, 4)),
      std::chrono::month(static_cast<unsigned>(number(text, 5, 2))),
      std::chrono::day(static_cast<unsigned>(number(text, 8, 2))));
  const int hour = number(text, 11, 2);
  const int minute = number(text, 14, 2);
  const int second = number(text, 17, 2);
  if (!date.ok() || date.year() < std::chrono::year(1) || hour > 23 || minute > 59 || second > 59) {
    return std::unexpected(ScalarProblem::kOutOfRange);
  }
  const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
  const std::int64_t unixSeconds = days * kSecondsPerDay + hour * 3600 + minute * 60 + second;
  return Date{static_cast<double>(unixSeconds - kReferenceDateUnixSeconds)};
}

Result<Data, ScalarProblem> dataFromText(std::string_view text) {
  Data data;
  data.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;  // of the current group of four characters
  int gathered = 0;
  int padding = 0;
  for (const char character : text) {
    if (kXmlWhiteSpace.find(character) != std::string_view::npos) continue;
    if (character == '=') {
      ++padding;
      continue;
    }
    const int value = sixBits(character);
    if (value < 0 || padding > 0) return std::unexpected(ScalarProblem::kMalformed);
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    if (++gathered < 4) continue;
    data.insert(data.end(),
                {static_cast<std::uint8_t>(bits >> 16), static_cast<std::uint8_t>(bits >> 8),
                 static_cast<std::uint8_t>(bits)});
    gathered = 0;
    bits = 0;
  }
  if (gathered == 1 || (gathered == 0 ? padding != 0 : gathered + padding != 4)) {
    return std::unexpected(ScalarProblem::kMalformed);
  }
  if (gathered == 2) {
    if ((bits & 0xF) != 0) return std::unexpected(ScalarProblem::kMalformed);
    data.push_back(static_cast<std::uint8_t>(bits >> 4));
  } else if (gathered == 3) {
    if ((bits & 0x3) != 0) return std::unexpected(ScalarProblem::kMalformed);
    data.push_back(static_cast<std::uint8_t>(bits >> 10));
    data.push_back(static_cast<std::uint8_t>(bits >> 2));
  }
  return data;
}

std::string textFromReal(double real) {
  if (std::isnan(real)) return "nan";
  if (std::isinf(real)) return real < 0 ? "-infinity" : "+infinity";
  std::array<char, 32> text;
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), real);
  return std::string(text.data(), end);
}

bool isWithinPropertyListDates(double secondsSinceReferenceDate) {
  return secondsSinceReferenceDate >= kFirstSecond && secondsSinceReferenceDate < kAfterLastSecond;
}

std::string textFromDate(Date date) {
  const std::chrono::sys_seconds time(
      std::chrono::seconds(static_cast<std::int64_t>(std::floor(date.secondsSinceReferenceDate)) +
                           kReferenceDateUnixSeconds));
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::year_month_day civil(day);
  const std::chrono::hh_mm_ss clock(time - day);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(civil.year()),
                     static_cast<unsigned>(civil.month()), static_cast<unsigned>(civil.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::string textFromData(std::span<const std::uint8_t> data) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((data.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < data.size(); at += 3) {
    const std::size_t count = std::min<std::size_t>(data.size() - at, 3);
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) bits = bits << 8 | (i < count ? data[at + i] : 0u);
    for (std::size_t i = 0; i < 4; ++i) {
      text += i <= count ? kAlphabet[bits >> (18 - 6 * i) & 0x3F] : '=';
    }
  }
  return text;
}

std::string_view withoutSurroundingWhiteSpace(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kXmlWhiteSpace);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kXmlWhiteSpace) - begin + 1);
}

}  // namespace platform
