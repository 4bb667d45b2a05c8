#include "Platform/Testing/PropertyLists/RandomPropertyList.h"

#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <span>

namespace platform {
namespace {

class Generator {
 public:
  Generator(std::mt19937& random, const RandomPropertyListOptions& options)
      : random_(random), options_(options) {}

  Value value(int depth) {
    switch (below(depth == 0 ? 7 : 9)) {
      case 0:
        return below(2) == 0;
      case 1:
        return integer();
      case 2:
        return real();
      case 3:
        return data();
      case 4:
        return date();
      case 5:
        if (options_.nullMarkers && below(4) == 0) return Value::nullMarker();
        [[fallthrough]];
      case 6:
        return text();
      case 7:
        return array(depth - 1);
      default:
        return dictionary(depth - 1);
    }
  }

 private:
  // The standard library's distributions differ between libraries.
  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }
  std::uint64_t bits() { return std::uint64_t{random_()} << 32 | random_(); }

  Value integer() {
    auto value = static_cast<std::int64_t>(bits() >> below(64));
    constexpr std::array kEdges = {INT64_MIN,         std::int64_t{-1},  std::int64_t{0},
                                   std::int64_t{255}, std::int64_t{256}, INT64_MAX};
    if (below(4) == 0) value = kEdges[below(kEdges.size())];
    return value;
  }

  Value real() {
    using Limits = std::numeric_limits<double>;
    constexpr std::array kEdges = {-0.0,
                                   Limits::infinity(),
                                   -Limits::infinity(),
                                   Limits::quiet_NaN(),
                                   Limits::denorm_min(),
                                   Limits::max()};
    if (options_.specialReals && below(3) == 0) return kEdges[below(kEdges.size())];
    if (below(2) == 0) return static_cast<double>(below(2000)) / 8 - 100;
    const double value = std::bit_cast<double>(bits());
    return std::isfinite(value) ? value : 0.5;
  }

  Value date() {
    if (options_.onlyRecentDates) return Date{static_cast<double>(below(1'893'456'000))};
    // In the years 1 to 9999.
    const auto seconds = static_cast<double>(bits() % 315'537'897'600) - 63'113'904'000.0;
    return Date{options_.fractionalDates ? seconds + below(8) / 8.0 : seconds};
  }

  Value data() {
    Data data(below(80));
    for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(below(256));
    return data;
  }

  std::string text() {
    // The carriage return is the last one.
    constexpr std::array kPieces = {"a",
                                    "Z",
                                    " ",
                                    "<",
                                    "&",
                                    ">",
                                    "\"",
                                    "'",
                                    "]]>",
                                    "\n",
                                    "\t",

                                    "\xC3\xA9",
                                    "\xE2\x82\xAC",
                                    "\xF0\x9F\x98\x80",
                                    "\xEE\x80\x80",
                                    "\xEF\xBF\xBD",
                                    "&amp;",
                                    "<!--",
                                    "1",
                                    "\r"};
    const auto pieces = static_cast<std::uint32_t>(kPieces.size() - !options_.carriageReturns);
    std::string text;
    const bool plain = below(2) == 0;
    for (std::uint32_t i = below(below(10) == 0 ? 400 : 20); i > 0; --i) {
      if (options_.controlCharacters && below(20) == 0) {
        text += static_cast<char>(below(32));
      } else {
        text += plain ? std::string(1, static_cast<char>('a' + below(26))) : kPieces[below(pieces)];
      }
    }
    return text;
  }

  Value array(int depth) {
    Array array;
    for (std::uint32_t i = below(below(10) == 0 ? 40 : 6); i > 0; --i) {
      array.push_back(value(depth));
    }
    return array;
  }

  Value dictionary(int depth) {
    Dictionary dictionary;
    for (std::uint32_t i = below(below(10) == 0 ? 40 : 6); i > 0; --i) {
      dictionary.set(text(), value(depth));
    }
    return dictionary;
  }

  std::mt19937& random_;
  const RandomPropertyListOptions& options_;
};

void appendHex(std::string& text, std::span<const std::uint8_t> bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (const std::uint8_t byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
}

void appendHex(std::string& text, std::string_view bytes) {
  appendHex(text, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

void appendHex(std::string& text, double real) {
  const auto bits = std::bit_cast<std::uint64_t>(
      std::isnan(real) ? std::numeric_limits<double>::quiet_NaN() : real);
  std::array<std::uint8_t, 8> bytes;
  for (std::size_t i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(bits >> (56 - 8 * i));
  appendHex(text, bytes);
}

void append(std::string& text, const Value& value) {
  switch (value.type()) {
    case Value::Type::kNil:
    case Value::Type::kRemoteObject:
      text += '?';
      return;
    case Value::Type::kNullMarker:
      text += 'n';
      return;
    case Value::Type::kBoolean:
      text += *value.boolean() ? "true" : "false";
      return;
    case Value::Type::kInteger:
      text += 'i' + std::to_string(*value.integer());
      return;
    case Value::Type::kReal:
      text += 'r';
      return appendHex(text, *value.real());
    case Value::Type::kDate:
      text += 't';
      return appendHex(text, value.date()->secondsSinceReferenceDate);
    case Value::Type::kString:
      text += 's';
      return appendHex(text, *value.string());
    case Value::Type::kData:
      text += 'b';
      return appendHex(text, *value.data());
    case Value::Type::kArray:
      text += '[';
      for (const Value& element : *value.array()) {
        append(text, element);
        text += ',';
      }
      text += ']';
      return;
    case Value::Type::kDictionary:
      text += '{';
      for (const auto& [key, element] : *value.dictionary()) {
        appendHex(text, key);
        text += ':';
        append(text, element);
        text += ',';
      }
      text += '}';
      return;
  }
}

}  // namespace

Value randomPropertyList(std::mt19937& random, const RandomPropertyListOptions& options) {
  return Generator(random, options).value(4);
}

std::string canonicalText(const Value& value) {
  std::string text;
  append(text, value);
  return text;
}

}  // namespace platform
