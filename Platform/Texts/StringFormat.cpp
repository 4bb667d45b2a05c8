#include "Platform/Texts/StringFormat.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include <fmt/format.h>

#include "Platform/Texts/Description.h"

namespace platform {
namespace {

using format_detail::Conversion;

constexpr std::string_view kNilText = "(null)";

// The object's text; `storage` holds it if it has to be composed.
std::string_view objectText(const FormatArgument& argument, std::string& storage) {
  struct Visitor {
    std::string& storage;
    std::string_view operator()(std::int64_t n) { return storage = fmt::to_string(n); }
    std::string_view operator()(std::uint64_t n) { return storage = fmt::to_string(n); }
    std::string_view operator()(double n) { return storage = description(Value(n)); }
    std::string_view operator()(FormatArgument::Text text) { return text.value_or(kNilText); }
    std::string_view operator()(const Value* value) {
      if (const std::string* string = value->string()) return *string;
      return storage = description(*value);
    }
    std::string_view operator()(const NSException* exception) { return exception->reason; }
    std::string_view operator()(const NSError* error) {
      return storage = fmt::format("Error Domain={} Code={} \"{}\"", error->domain, error->code,
                                   error->localizedDescription);
    }
  };
  return std::visit(Visitor{storage}, argument.held());
}

void appendPadded(std::string& text, std::string_view piece, const Conversion& conversion) {
  if (conversion.precision >= 0)
    piece = piece.substr(0, static_cast<std::size_t>(conversion.precision));
  const std::size_t width = static_cast<std::size_t>(conversion.width);
  const std::size_t padding = piece.size() < width ? width - piece.size() : 0;
  const bool left = conversion.flags.find('-') != std::string_view::npos;
  if (!left) text.append(padding, ' ');
  text += piece;
  if (left) text.append(padding, ' ');
}

// The conversion in C's notation, with the length of the argument that we hold.
std::string specification(const Conversion& conversion, std::string_view length) {
  std::string text = "%";
  text += conversion.flags;
  if (conversion.width > 0) text += fmt::to_string(conversion.width);
  if (conversion.precision >= 0) text += "." + fmt::to_string(conversion.precision);
  text += length;
  return text += conversion.type;
}

template <typename Number>
void appendPrinted(std::string& text, const std::string& specification, Number number) {
  char buffer[128];
  const int size = std::snprintf(buffer, sizeof buffer, specification.c_str(), number);
  if (size < 0) return;
  if (static_cast<std::size_t>(size) < sizeof buffer) {
    text.append(buffer, static_cast<std::size_t>(size));
    return;
  }
  std::string longer(static_cast<std::size_t>(size) + 1, '\0');
  std::snprintf(longer.data(), longer.size(), specification.c_str(), number);
  text.append(longer, 0, static_cast<std::size_t>(size));
}

// An integer as C's calling convention passes it, truncated to the given length.
std::int64_t cutSigned(std::uint64_t bits, int length) {
  if (length == -2) return static_cast<std::int8_t>(bits);
  if (length == -1) return static_cast<std::int16_t>(bits);
  if (length == 0) return static_cast<std::int32_t>(bits);
  return static_cast<std::int64_t>(bits);
}

std::uint64_t cutUnsigned(std::uint64_t bits, int length) {
  if (length == -2) return static_cast<std::uint8_t>(bits);
  if (length == -1) return static_cast<std::uint16_t>(bits);
  if (length == 0) return static_cast<std::uint32_t>(bits);
  return bits;
}

void appendInteger(std::string& text, const Conversion& conversion, std::uint64_t bits) {
  const bool plain = conversion.flags.empty() && conversion.width == 0 && conversion.precision < 0;
  const bool isSigned = conversion.type == 'd' || conversion.type == 'i';
  const std::int64_t number = cutSigned(bits, conversion.length);
  const std::uint64_t magnitude = cutUnsigned(bits, conversion.length);
  if (conversion.type == 'c') {
    const char character = static_cast<char>(bits);
    appendPadded(text, {&character, 1}, conversion);
  } else if (isSigned && plain) {
    fmt::format_to(std::back_inserter(text), "{}", number);
  } else if (isSigned) {
    appendPrinted(text, specification(conversion, "ll"), static_cast<long long>(number));
  } else if (conversion.type == 'u' && plain) {
    fmt::format_to(std::back_inserter(text), "{}", magnitude);
  } else {
    appendPrinted(text, specification(conversion, "ll"),
                  static_cast<unsigned long long>(magnitude));
  }
}

void appendConverted(std::string& text, const Conversion& conversion,
                     const FormatArgument& argument) {
  const bool integral = std::string_view("diuxXoc").find(conversion.type) != std::string_view::npos;
  const bool real = std::string_view("fFeEgG").find(conversion.type) != std::string_view::npos;
  if (const auto* number = std::get_if<std::int64_t>(&argument.held()); number && integral) {
    appendInteger(text, conversion, static_cast<std::uint64_t>(*number));
    return;
  }
  if (const auto* number = std::get_if<std::uint64_t>(&argument.held()); number && integral) {
    appendInteger(text, conversion, *number);
    return;
  }
  if (const auto* number = std::get_if<double>(&argument.held()); number && real) {
    appendPrinted(text, specification(conversion, ""), *number);
    return;
  }
  std::string storage;
  std::string_view piece = objectText(argument, storage);
  if (conversion.type == 's') piece = piece.substr(0, piece.find('\0'));
  const Conversion unformatted{};
  appendPadded(text, piece, conversion.type == 's' ? conversion : unformatted);
}

}  // namespace

std::string formatArguments(std::string_view format, std::span<const FormatArgument> arguments) {
  std::string text;
  text.reserve(format.size() + 24 * arguments.size());
  std::size_t next = 0;
  std::size_t at = 0;
  for (std::size_t percent = format.find('%'); percent != format.npos;
       percent = format.find('%', at)) {
    text += format.substr(at, percent - at);
    const Conversion conversion = format_detail::parseConversion(format, percent + 1);
    at = conversion.end;
    if (conversion.type == 0) {
      text += format.substr(percent, at - percent);
    } else if (conversion.type == '%') {
      text += '%';
    } else if (next == arguments.size()) {
      text += kNilText;
    } else {
      appendConverted(text, conversion, arguments[next++]);
    }
  }
  text += format.substr(at);
  return text;
}

}  // namespace platform
