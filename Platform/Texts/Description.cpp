#include "Platform/Texts/Description.h"

#include <charconv>
#include <chrono>
#include <cmath>

#include <fmt/format.h>

namespace platform {
namespace {

std::string describeReal(double real) {
  char digits[32];
  const auto [end, error] = std::to_chars(std::begin(digits), std::end(digits), real);
  return std::string(digits, end);
}

std::string describeDate(Date date) {
  using namespace std::chrono;
  // Beyond these years the calendar's arithmetic would overflow.
  constexpr double kYears = 366.0 * 86400 * 30'000;
  const double seconds = std::floor(date.secondsSinceReferenceDate);
  if (!(std::abs(seconds) < kYears)) return describeReal(date.secondsSinceReferenceDate);
  const sys_seconds time{
      std::chrono::seconds(static_cast<std::int64_t>(seconds) + kReferenceDateUnixSeconds)};
  const auto day = floor<days>(time);
  const year_month_day civil{day};
  const hh_mm_ss clock{time - day};
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", static_cast<int>(civil.year()),
                     static_cast<unsigned>(civil.month()), static_cast<unsigned>(civil.day()),
                     clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::string describeData(const Data& data) {
  std::string text = "<";
  for (std::size_t i = 0; i < data.size(); ++i) {
    if (i != 0 && i % 4 == 0) text += ' ';
    fmt::format_to(std::back_inserter(text), "{:02x}", data[i]);
  }
  return text += '>';
}

void append(std::string& text, const Array& array);
void append(std::string& text, const Dictionary& dictionary);

void append(std::string& text, const Value& value) {
  if (const Array* array = value.array()) {
    append(text, *array);
  } else if (const Dictionary* dictionary = value.dictionary()) {
    append(text, *dictionary);
  } else if (const std::string* string = value.string()) {
    text += *string;
  } else {
    text += description(value);
  }
}

void append(std::string& text, const Array& array) {
  const char* separator = "";
  text += '[';
  for (const Value& element : array) {
    text += std::exchange(separator, ", ");
    append(text, element);
  }
  text += ']';
}

void append(std::string& text, const Dictionary& dictionary) {
  const char* separator = "";
  text += '{';
  for (const auto& [key, element] : dictionary) {
    text += std::exchange(separator, ", ");
    text += key;
    text += " : ";
    append(text, element);
  }
  text += '}';
}

}  // namespace

std::string description(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNil:
      return "(null)";
    case Value::Type::kNullMarker:
      return "<null>";
    case Value::Type::kBoolean:
      return *value.boolean() ? "1" : "0";
    case Value::Type::kInteger:
      return fmt::to_string(*value.integer());
    case Value::Type::kReal:
      return describeReal(*value.real());
    case Value::Type::kString:
      return *value.string();
    case Value::Type::kData:
      return describeData(*value.data());
    case Value::Type::kDate:
      return describeDate(*value.date());
    case Value::Type::kArray:
      return singleLineDescription(*value.array());
    case Value::Type::kDictionary:
      return singleLineDescription(*value.dictionary());
    case Value::Type::kRemoteObject:
      return fmt::format("<{}>", value.remoteObject()->className());
  }
  return "";
}

std::string singleLineDescription(const Array& array) {
  std::string text;
  append(text, array);
  return text;
}

std::string singleLineDescription(const Dictionary& dictionary) {
  std::string text;
  append(text, dictionary);
  return text;
}

}  // namespace platform
